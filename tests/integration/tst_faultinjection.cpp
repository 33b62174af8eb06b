#include "commandrunner.h"
#include "fakeprogram.h"
#include "hostdirectories.h"
#include "logcapture.h"
#include "ovafixture.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testenv.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace OvaFixture;

// Every disk step fails once, through a qemu-img stand-in that hands all other calls to the
// real tool, or through a file in the way. A failed operation leaves no half-made device and
// never changes an existing one.
class tst_FaultInjection : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void deploy_data();
    void deploy();
    void factoryReset_data();
    void factoryReset();
    void overlayJudgedByTargetFile();
    void cloneOntoStrayFile();
    void copyFile_data();
    void copyFile();

private:
    void blockDataReference(bool block);
    void failOn(const QStringList &match, int exitCode = 1, int sleepMs = 0, bool createTarget = false);
    QString referenceFile(const QString &fileName) const;
    QString keepPath() const { return m_engine->devicePath(QStringLiteral("keep")); }

    QTemporaryDir m_home;
    QString m_realImg;
    OsImage m_image;
    std::unique_ptr<FakeProgram> m_fakeImg;
    std::unique_ptr<FakeProgram> m_fakeQemu;
    std::unique_ptr<QEMUEngine> m_engine;
    QMap<QString, QByteArray> m_keep;
};

void tst_FaultInjection::initTestCase()
{
    QV_REQUIRE_PROGRAM(img, "qemu-img");
    QV_REQUIRE_PROGRAM(tar, "tar");
    m_realImg = img;
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", m_home.path().toUtf8());
    const QString bin = m_home.path() + QStringLiteral("/bin");
    QVERIFY(QDir().mkpath(bin));
    qputenv("QV_QEMU_BIN_DIR", bin.toUtf8());
    m_fakeImg = std::make_unique<FakeProgram>(bin, QStringLiteral("qemu-img"));
    m_fakeQemu = std::make_unique<FakeProgram>(bin, QStringLiteral("qemu-system-x86_64"));
    QVERIFY(m_fakeImg->isValid() && m_fakeQemu->isValid());
    m_fakeQemu->setRules(QJsonObject{{"rules", QJsonArray{QJsonObject{{"stdout", "QEMU emulator version 8.2.2\n"}}}}});
    failOn({});

    QString ova;
    QVERIFY(makeOva(m_realImg, m_home.path(), &ova));
    m_image = image(ova);
    m_engine = std::make_unique<QEMUEngine>();
    QVERIFY(QDir().mkpath(m_engine->devicesDirectory().absolutePath()));
    QCOMPARE(m_engine->createDevice(QStringLiteral("keep"), m_image, profile(8)), 0);
    m_keep = treeHashes(keepPath());
    QVERIFY(m_keep.contains(QStringLiteral("sdcard.qcow2")));
}

void tst_FaultInjection::init()
{
    failOn({});
    // Cases that break a conversion leave the reference disks missing; bring them back.
    for (const QString &name : {QStringLiteral("system"), QStringLiteral("data")}) {
        const QString qcow2 = referenceFile(name + QStringLiteral(".qcow2"));
        if (!QFile::exists(qcow2))
            QVERIFY(run(m_realImg, {QStringLiteral("convert"), QStringLiteral("-O"), QStringLiteral("qcow2"),
                                    referenceFile(name + QStringLiteral(".vmdk")), qcow2}));
    }
}

void tst_FaultInjection::cleanup()
{
    setDefaultCommandTimeoutForTesting(0);
    QCOMPARE(treeHashes(keepPath()), m_keep);
    QDir(m_engine->devicePath(QStringLiteral("new"))).removeRecursively();
}

void tst_FaultInjection::cleanupTestCase()
{
    m_engine.reset();
}

void tst_FaultInjection::failOn(const QStringList &match, int exitCode, int sleepMs, bool createTarget)
{
    QJsonArray rules;
    if (!match.isEmpty()) {
        QJsonObject rule{{"match", QJsonArray::fromStringList(match)}, {"exit", exitCode},
                         {"stderr", "injected failure"}, {"sleep_ms", sleepMs}};
        if (createTarget)
            rule.insert(QStringLiteral("create_file_arg"), -1);
        rules.append(rule);
    }
    m_fakeImg->setRules(QJsonObject{{"passthrough", m_realImg}, {"rules", rules}});
}

// A directory where the reference data disk should be: it exists, but cannot be copied.
void tst_FaultInjection::blockDataReference(bool block)
{
    const QString reference = referenceFile(QStringLiteral("data.qcow2"));
    const QString aside = m_home.path() + QStringLiteral("/data-aside.qcow2");
    if (block && QFile::rename(reference, aside))
        QDir().mkpath(reference);
    else if (!block && QFile::exists(aside) && QDir(reference).removeRecursively())
        QFile::rename(aside, reference);
    QCOMPARE(QFileInfo(reference).isDir(), block);
}

QString tst_FaultInjection::referenceFile(const QString &fileName) const
{
    return QDir(systemImageDirectory(m_image.osVersion, m_image.imageVersion)).absoluteFilePath(fileName);
}

void tst_FaultInjection::deploy_data()
{
    QTest::addColumn<QStringList>("match");
    QTest::addColumn<bool>("fromScratch");  // reference disks converted again first
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<int>("sleepMs");
    QTest::addColumn<int>("limitMs");
    QTest::addColumn<bool>("dataReferenceBlocked");
    QTest::addColumn<QString>("stepMessage");

    QTest::newRow("convert system") << QStringList{"convert", "system.vmdk"} << true << 1 << 0 << 0 << false
                                    << "[VMTools] Failed to get system disk info";
    QTest::newRow("convert data") << QStringList{"convert", "data.vmdk"} << true << 1 << 0 << 0 << false
                                  << "[VMTools] Failed to get data disk info";
    QTest::newRow("create overlay") << QStringList{"create", "-b"} << false << 1 << 0 << 0 << false
                                    << "[VMTools] Failed to create disks";
    QTest::newRow("create sdcard") << QStringList{"create", "sdcard.qcow2"} << false << 1 << 0 << 0 << false
                                   << "[VMTools] Failed to create sdcard disk";
    QTest::newRow("conversion past the limit") << QStringList{"convert", "system.vmdk"} << true << 0 << 5000
                                               << 1000 << false << "[VMTools] Failed to get system disk info";
    QTest::newRow("copy data disk") << QStringList() << false << 0 << 0 << 0 << true
                                    << "[VMTools] Failed to copy reference data disk to local one";
}

void tst_FaultInjection::deploy()
{
    QFETCH(QStringList, match);
    QFETCH(bool, fromScratch);
    QFETCH(int, exitCode);
    QFETCH(int, sleepMs);
    QFETCH(int, limitMs);
    QFETCH(bool, dataReferenceBlocked);
    QFETCH(QString, stepMessage);
    blockDataReference(dataReferenceBlocked);
    if (fromScratch) {
        QVERIFY(QFile::remove(referenceFile(QStringLiteral("system.qcow2"))));
        QVERIFY(QFile::remove(referenceFile(QStringLiteral("data.qcow2"))));
    }
    failOn(match, exitCode, sleepMs);
    setDefaultCommandTimeoutForTesting(limitMs);

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    const int result = m_engine->createDevice(QStringLiteral("new"), m_image, profile(8));
    blockDataReference(false);
    QCOMPARE(result, 1);
    if (limitMs > 0)
        QVERIFY(timer.elapsed() < sleepMs);
    QVERIFY2(log.contains(QtCriticalMsg, stepMessage), qPrintable(log.dump()));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Failed to create device"), qPrintable(log.dump()));
    QVERIFY(!QFileInfo::exists(m_engine->devicePath(QStringLiteral("new"))));
    QVERIFY(!m_engine->isMachineLoadable(QStringLiteral("new")));
}

void tst_FaultInjection::factoryReset_data()
{
    QTest::addColumn<QStringList>("match");
    QTest::addColumn<bool>("dataReferenceBlocked");
    QTest::addColumn<QString>("stepMessage");

    QTest::newRow("create overlay") << QStringList{"create", "-b"} << false << "[VMTools] Failed to create system disk";
    QTest::newRow("copy data disk") << QStringList() << true << "[VMTools] Failed to copy data disk";
}

void tst_FaultInjection::factoryReset()
{
    QFETCH(QStringList, match);
    QFETCH(bool, dataReferenceBlocked);
    QFETCH(QString, stepMessage);
    blockDataReference(dataReferenceBlocked);
    failOn(match);
    std::unique_ptr<VMToolsMachine> machine(m_engine->loadMachine(QStringLiteral("keep")));
    QVERIFY(machine);
    LogCapture log;
    const int result = m_engine->factoryReset(machine.get());
    blockDataReference(false);
    QCOMPARE(result, 2);
    QVERIFY2(log.contains(QtCriticalMsg, stepMessage), qPrintable(log.dump()));
}

void tst_FaultInjection::overlayJudgedByTargetFile()
{
    // Only the made file counts, not the tool's exit code (kept as it stands).
    const QString target = m_home.path() + QStringLiteral("/overlay.qcow2");
    failOn({QStringLiteral("create"), QStringLiteral("-b")}, 1, 0, true);
    QVERIFY(m_engine->createOverlayDisk(referenceFile(QStringLiteral("system.qcow2")), target));
    QVERIFY(QFile::remove(target));

    failOn({QStringLiteral("create"), QStringLiteral("-b")}, 0);
    LogCapture log;
    QVERIFY(!m_engine->createOverlayDisk(referenceFile(QStringLiteral("system.qcow2")), target));
    QVERIFY2(log.contains(QtCriticalMsg, QStringLiteral("[VMTools] Failed to create disk %1 . injected failure").arg(target)),
             qPrintable(log.dump()));
}

void tst_FaultInjection::cloneOntoStrayFile()
{
    // A plain file holds the new name: the copy cannot make the directory, and the file the
    // clone found there is not taken for its own leftovers.
    const QString stray = m_engine->devicePath(QStringLiteral("new"));
    QFile file(stray);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("stray");
    file.close();
    std::unique_ptr<VMToolsMachine> source(m_engine->loadMachine(QStringLiteral("keep")));
    QVERIFY(source);
    LogCapture log;
    QVERIFY(!m_engine->cloneMachine(source.get(), QStringLiteral("new")));
    QVERIFY2(log.containsPrefix(QtCriticalMsg, "[VMTools] Failed to copy"), qPrintable(log.dump()));
    QVERIFY(QFileInfo(stray).isFile());
    QCOMPARE(fileHash(stray), QCryptographicHash::hash("stray", QCryptographicHash::Sha1));
    QVERIFY(QFile::remove(stray));
}

void tst_FaultInjection::copyFile_data()
{
    QTest::addColumn<QString>("source");       // relative to the device "keep"
    QTest::addColumn<bool>("destinationExists");

    QTest::newRow("existing destination") << "data.qcow2" << true;
    QTest::newRow("directory source") << "." << false;
    QTest::newRow("missing source") << "absent.qcow2" << false;
}

void tst_FaultInjection::copyFile()
{
    QFETCH(QString, source);
    QFETCH(bool, destinationExists);
    const QString from = QDir(keepPath()).absoluteFilePath(source);
    const QString to = m_home.path() + QStringLiteral("/copy.qcow2");
    QFile::remove(to);
    if (destinationExists) {
        QFile file(to);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("previous");
    }
    LogCapture log;
    QVERIFY(!m_engine->copyFile(from, to));
    QVERIFY2(log.containsPrefix(QtCriticalMsg, QStringLiteral("[VMTools] Failed to copy %1 to %2 : ").arg(from, to)),
             qPrintable(log.dump()));
    if (destinationExists)
        QCOMPARE(fileHash(to), QCryptographicHash::hash("previous", QCryptographicHash::Sha1));
    else
        QVERIFY(!QFileInfo::exists(to));
    QFile::remove(to);
}

QTEST_GUILESS_MAIN(tst_FaultInjection)
#include "tst_faultinjection.moc"
