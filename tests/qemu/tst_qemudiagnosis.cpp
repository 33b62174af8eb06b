#include "errortriggers.h"
#include "logcapture.h"
#include "qemudiagnosis.h"
#include "testfiles.h"

#include <QtTest>

class tst_QemuDiagnosis : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { qunsetenv("QV_TRIGGER_ERROR"); }
    void diagnose_data();
    void diagnose();
};

void tst_QemuDiagnosis::diagnose_data()
{
    QTest::addColumn<QByteArray>("text");     // null: no file at all
    QTest::addColumn<QByteArray>("trigger");  // QV_TRIGGER_ERROR; null: unset
    QTest::addColumn<QString>("honoured");    // qemunotinstalled, hypervhaxmerror, memorynotsupportederror
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("log");         // the whole log, the file's folder shown as D

    const QByteArray busy = "Could not open '/dev/kvm': Device or resource busy\n", none;
    const QByteArray lock = "-drive file=D/system.qcow2: Failed to get \"write\" lock\n";
    const QByteArray port = "host forwarding rule 'tcp::6555-:5555': failed to find an available port\n";
    const QString busyLog = "critical: Device or resource busy", lockLog = "critical: Another process is using a system file";
    const QString portLog = "critical: Another process is using the same port", memory = "memorynotsupportederror";
    QTest::newRow("missing") << none << none << "000" << 1
        << "warning: Failed to open D/qemu.log No such file or directory\ncritical: Cannot open QEMU stderr, assuming an error";
    QTest::newRow("empty") << QByteArray("") << QByteArray("") << "000" << 0 << "";
    QTest::newRow("busy") << busy << none << "000" << 3 << busyLog;
    QTest::newRow("busy before port") << port + busy << none << "000" << 3 << busyLog;
    QTest::newRow("busy before lock") << lock + busy << none << "000" << 3 << busyLog;
    QTest::newRow("lock") << lock << none << "000" << 4 << lockLog;
    QTest::newRow("lock without quotes") << QByteArray("Failed to get write lock") << none << "000" << 0 << "";
    QTest::newRow("port") << port << none << "000" << 5 << portLog;
    QTest::newRow("forwarding rule") << QByteArray("qemu-system-x86_64: -nic user,hostfwd=tcp:127.0.0.1:6555-:5555: Could not set up host forwarding rule 'tcp:127.0.0.1:6555-:5555'\n")
                                     << none << "000" << 5 << portLog;
    QTest::newRow("lock then port") << lock + port << none << "000" << 4 << lockLog;
    QTest::newRow("port then lock") << port + lock << none << "000" << 4 << lockLog;
    QTest::newRow("port before memory") << port + "Addressing limited" << none << "000" << 5 << portLog;
    QTest::newRow("addressing limited") << QByteArray("phys-bits too low - ADDRESSING LIMITED") << none << "000" << 6 << "";
    QTest::newRow("memory before accelerator") << QByteArray("addressing limited; no accelerator found") << none << "000" << 6 << "";
    QTest::newRow("invalid accelerator") << QByteArray("-accel hax: Invalid Accelerator: hax\n") << none << "000" << 2 << "critical: QEMU error found in logs -accel hax: Invalid Accelerator: hax\n";
    QTest::newRow("no accelerator found") << QByteArray("NO ACCELERATOR FOUND") << none << "000" << 2 << "critical: QEMU error found in logs NO ACCELERATOR FOUND";
    QTest::newRow("no accelerator, falling back") << QByteArray("no accelerator found, Falling Back to tcg") << none << "000" << 0 << "info: QEMU succeed to switch on another accelerator no accelerator found, Falling Back to tcg";
    QTest::newRow("trigger on a clean log") << QByteArray("") << "x," + memory.toUtf8() << "001" << 6 << "";
    QTest::newRow("trigger after port") << port << memory.toUtf8() << "001" << 5 << portLog;
    QTest::newRow("trigger before accelerator") << QByteArray("no accelerator found") << memory.toUtf8() + ";hypervhaxmerror" << "011" << 6 << "";
    QTest::newRow("tokens inside other text") << QByteArray("") << QByteArray("xqemunotinstalledymemorynotsupported") << "100" << 0 << "";
    QTest::newRow("tokens are case-sensitive") << QByteArray("") << QByteArray("HYPERVHAXMERROR|MEMORYNOTSUPPORTEDERROR") << "000" << 0 << "";
    QTest::newRow("not UTF-8") << QByteArray("\xff\xfe device or resource busy \xc3") << none << "000" << 3 << busyLog;
}

void tst_QemuDiagnosis::diagnose()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, trigger);
    QFETCH(QString, honoured);
    QFETCH(int, expected);
    QFETCH(QString, log);

    QTemporaryDir dir;
    const QString path = dir.filePath("qemu.log");
    QVERIFY(text.isNull() || writeFile(path, text));
    if (!trigger.isNull())
        qputenv("QV_TRIGGER_ERROR", trigger);
    QCOMPARE(QString::number(ErrorTriggers::qemuNotInstalled()) + QString::number(ErrorTriggers::hypervisorError())
             + QString::number(ErrorTriggers::memoryNotSupported()), honoured);
    QVERIFY(!isErrorTriggerSet(""));

    LogCapture capture;
    QCOMPARE(int(diagnoseQemuErrors(path)), expected);
    QCOMPARE(capture.dump().replace(dir.path(), "D"), log);

    // Each check reads the file again and holds for its own cause only. A braced list
    // evaluates in order, so the checks run as a start runs them.
    capture.clear();
    const bool checks[] = {isDeviceBusy(path), isSystemFileUsed(path), isPortUsed(path), isMemorySizeNotSupported(path)};
    for (int i = 0; i < 4; ++i)
        QCOMPARE(checks[i], expected == i + 3);
    QCOMPARE(capture.lines(QtDebugMsg), QStringList({"Checking if device or resource is busy...",
             "Checking if another process is using a system file of QEMU...",
             "Checking if another process is using the port of QEMU...", "Checking if memory size not supported on machine..."}));
}

QTEST_GUILESS_MAIN(tst_QemuDiagnosis)
#include "tst_qemudiagnosis.moc"
