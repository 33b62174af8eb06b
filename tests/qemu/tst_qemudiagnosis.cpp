#include "errortriggers.h"
#include "logcapture.h"
#include "qemudiagnosis.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

Q_DECLARE_METATYPE(QemuDiagnosis)

class tst_QemuDiagnosis : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void diagnose_data();
    void diagnose();
    void unreadableLog();
    void checks_data();
    void checks();
    void vocabulary();
    void honouredTriggers_data();
    void honouredTriggers();

private:
    QString writeLog(const QByteArray &text);

    QTemporaryDir m_dir;
};

void tst_QemuDiagnosis::init()
{
    QVERIFY(m_dir.isValid());
    qunsetenv("QV_TRIGGER_ERROR");
}

void tst_QemuDiagnosis::cleanup()
{
    qunsetenv("QV_TRIGGER_ERROR");
}

QString tst_QemuDiagnosis::writeLog(const QByteArray &text)
{
    const QString path = m_dir.filePath(QStringLiteral("qemu.log"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size())
        return {};
    return path;
}

void tst_QemuDiagnosis::diagnose_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("trigger");
    QTest::addColumn<QemuDiagnosis>("expected");
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("line");  // empty: no line of the diagnosis itself

    const auto none = QString();
    QTest::newRow("empty") << QByteArray() << QByteArray() << QemuDiagnosis::NoError << 0 << none;
    QTest::newRow("unrelated") << QByteArray("qemu-system-x86_64: warning: host doesn't support requested feature\n")
                               << QByteArray() << QemuDiagnosis::NoError << 0 << none;
    QTest::newRow("busy before port")
            << QByteArray("could not set up host forwarding rule: failed to find an available port\n"
                          "Could not open '/dev/kvm': Device or resource busy\n")
            << QByteArray() << QemuDiagnosis::DeviceBusy << int(QtCriticalMsg)
            << QStringLiteral("Device or resource busy");
    QTest::newRow("write lock")
            << QByteArray("qemu-system-x86_64: -drive file=D/system.qcow2,format=qcow2: Failed to get \"write\" lock\n"
                          "Is another process using the image [D/system.qcow2]?\n")
            << QByteArray() << QemuDiagnosis::SystemFileLocked << int(QtCriticalMsg)
            << QStringLiteral("Another process is using a system file");
    QTest::newRow("write lock, other case")
            << QByteArray("FAILED TO GET \"WRITE\" LOCK") << QByteArray()
            << QemuDiagnosis::SystemFileLocked << int(QtCriticalMsg)
            << QStringLiteral("Another process is using a system file");
    QTest::newRow("lock without quotes is not the lock message")
            << QByteArray("Failed to get write lock") << QByteArray() << QemuDiagnosis::NoError << 0 << none;
    QTest::newRow("port")
            << QByteArray("could not set up host forwarding rule 'tcp::6555-:5555': Failed to find an available port\n")
            << QByteArray() << QemuDiagnosis::PortInUse << int(QtCriticalMsg)
            << QStringLiteral("Another process is using the same port");
    QTest::newRow("addressing limited")
            << QByteArray("Address space limit 0xffffffffff < 0x1fffffffff phys-bits too low (39) - Addressing Limited\n")
            << QByteArray() << QemuDiagnosis::MemoryNotSupported << 0 << none;
    QTest::newRow("invalid accelerator, any case")
            << QByteArray("qemu-system-x86_64: -accel hax: Invalid Accelerator: hax\n") << QByteArray()
            << QemuDiagnosis::AcceleratorError << int(QtCriticalMsg)
            << QStringLiteral("QEMU error found in logs qemu-system-x86_64: -accel hax: Invalid Accelerator: hax\n");
    QTest::newRow("no accelerator found, upper case")
            << QByteArray("NO ACCELERATOR FOUND") << QByteArray() << QemuDiagnosis::AcceleratorError
            << int(QtCriticalMsg) << QStringLiteral("QEMU error found in logs NO ACCELERATOR FOUND");
    QTest::newRow("falling back")
            << QByteArray("invalid accelerator whpx, falling back to tcg") << QByteArray()
            << QemuDiagnosis::NoError << int(QtInfoMsg)
            << QStringLiteral("QEMU succeed to switch on another accelerator invalid accelerator whpx, falling back to tcg");
    QTest::newRow("trigger after earlier pattern")
            << QByteArray("failed to find an available port") << QByteArray("x,memorynotsupportederror")
            << QemuDiagnosis::PortInUse << int(QtCriticalMsg)
            << QStringLiteral("Another process is using the same port");
    QTest::newRow("trigger on clean log")
            << QByteArray() << QByteArray("x,memorynotsupportederror") << QemuDiagnosis::MemoryNotSupported
            << 0 << none;
    QTest::newRow("trigger before accelerator rule")
            << QByteArray("no accelerator found") << QByteArray("memorynotsupportederror;hypervhaxmerror")
            << QemuDiagnosis::MemoryNotSupported << 0 << none;
    QTest::newRow("other trigger ignored")
            << QByteArray() << QByteArray("memorynotsupported") << QemuDiagnosis::NoError << 0 << none;
    QTest::newRow("not UTF-8") << QByteArray("\xff\xfe device or resource busy \xc3") << QByteArray()
                               << QemuDiagnosis::DeviceBusy << int(QtCriticalMsg)
                               << QStringLiteral("Device or resource busy");
}

void tst_QemuDiagnosis::diagnose()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, trigger);
    QFETCH(QemuDiagnosis, expected);
    QFETCH(int, level);
    QFETCH(QString, line);

    const QString path = writeLog(text);
    QVERIFY(!path.isEmpty());
    if (!trigger.isEmpty())
        qputenv("QV_TRIGGER_ERROR", trigger);

    LogCapture log;
    QCOMPARE(diagnoseQemuErrors(path), expected);
    if (line.isEmpty())
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    else
        QVERIFY2(log.contains(QtMsgType(level), line), qPrintable(log.dump()));
}

void tst_QemuDiagnosis::unreadableLog()
{
    LogCapture log;
    QCOMPARE(diagnoseQemuErrors(m_dir.filePath(QStringLiteral("missing.log"))),
             QemuDiagnosis::LogUnreadable);
    QVERIFY2(log.contains(QtCriticalMsg, "Cannot open QEMU stderr, assuming an error"), qPrintable(log.dump()));
    // A directory cannot be read as a file either.
    QCOMPARE(diagnoseQemuErrors(m_dir.path()), QemuDiagnosis::LogUnreadable);
}

void tst_QemuDiagnosis::checks_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("holds");  // the one check that holds, or empty

    QTest::newRow("clean") << QByteArray("nothing to see") << QString();
    QTest::newRow("busy") << QByteArray("device or resource busy") << QStringLiteral("busy");
    QTest::newRow("system file") << QByteArray("Failed to get \"write\" lock") << QStringLiteral("system");
    QTest::newRow("port") << QByteArray("failed to find an available port") << QStringLiteral("port");
    QTest::newRow("memory") << QByteArray("addressing limited") << QStringLiteral("memory");
    QTest::newRow("accelerator is none of them") << QByteArray("invalid accelerator") << QString();
}

void tst_QemuDiagnosis::checks()
{
    QFETCH(QByteArray, text);
    QFETCH(QString, holds);
    const QString path = writeLog(text);
    QVERIFY(!path.isEmpty());

    LogCapture log;
    QCOMPARE(isDeviceBusy(path), holds == QLatin1String("busy"));
    QCOMPARE(isSystemFileUsed(path), holds == QLatin1String("system"));
    QCOMPARE(isPortUsed(path), holds == QLatin1String("port"));
    QCOMPARE(isMemorySizeNotSupported(path), holds == QLatin1String("memory"));

    const QStringList debugLines = log.lines(QtDebugMsg);
    const QStringList expected = {
        QStringLiteral("Checking if device or resource is busy..."),
        QStringLiteral("Checking if another process is using a system file of QEMU..."),
        QStringLiteral("Checking if another process is using the port of QEMU..."),
        QStringLiteral("Checking if memory size not supported on machine..."),
    };
    QCOMPARE(debugLines, expected);
}

void tst_QemuDiagnosis::vocabulary()
{
    const QStringList &tokens = ErrorTriggers::vocabulary();
    QCOMPARE(tokens.size(), 34);
    QCOMPARE(tokens.first(), QStringLiteral("vboxlaunchpad"));
    QCOMPARE(tokens.last(), QStringLiteral("amplitudeerror"));
    // The host maps identifiers by position, so the honoured ones must stay where they are.
    QCOMPARE(tokens.indexOf(QStringLiteral("qemunotinstalled")), 24);
    QCOMPARE(tokens.indexOf(QStringLiteral("hypervhaxmerror")), 29);
    QCOMPARE(tokens.indexOf(QStringLiteral("memorynotsupportederror")), 32);
    QCOMPARE(QSet<QString>(tokens.begin(), tokens.end()).size(), tokens.size());
    for (const QString &token : tokens)
        QCOMPARE(token, token.toLower());
}

void tst_QemuDiagnosis::honouredTriggers_data()
{
    QTest::addColumn<QByteArray>("value");  // null: unset
    QTest::addColumn<bool>("notInstalled");
    QTest::addColumn<bool>("hypervisor");
    QTest::addColumn<bool>("memory");

    QTest::newRow("unset") << QByteArray() << false << false << false;
    QTest::newRow("empty") << QByteArray("") << false << false << false;
    QTest::newRow("one") << QByteArray("hypervhaxmerror") << false << true << false;
    QTest::newRow("several, any separator")
            << QByteArray("qemunotinstalled|memorynotsupportederror") << true << false << true;
    QTest::newRow("inside other text") << QByteArray("xxqemunotinstalledyy") << true << false << false;
    QTest::newRow("case matters") << QByteArray("HYPERVHAXMERROR") << false << false << false;
    QTest::newRow("unhonoured tokens") << QByteArray("noip,segfault,vboxnotinstalled") << false << false << false;
}

void tst_QemuDiagnosis::honouredTriggers()
{
    QFETCH(QByteArray, value);
    QFETCH(bool, notInstalled);
    QFETCH(bool, hypervisor);
    QFETCH(bool, memory);

    if (!value.isNull())
        qputenv("QV_TRIGGER_ERROR", value);
    QCOMPARE(ErrorTriggers::qemuNotInstalled(), notInstalled);
    QCOMPARE(ErrorTriggers::hypervisorError(), hypervisor);
    QCOMPARE(ErrorTriggers::memoryNotSupported(), memory);

    // Read afresh: clearing the variable takes effect at once.
    qunsetenv("QV_TRIGGER_ERROR");
    QVERIFY(!ErrorTriggers::qemuNotInstalled());
    QVERIFY(!isErrorTriggerSet("hypervhaxmerror"));
    QVERIFY(!isErrorTriggerSet(""));
}

QTEST_GUILESS_MAIN(tst_QemuDiagnosis)
#include "tst_qemudiagnosis.moc"
