#include "fakeprogram.h"
#include "fileutils.h"
#include "hostdirectories.h"
#include "logcapture.h"
#include "qemutestbed.h"
#include "testenv.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QJsonObject qemuRules(const QString &errorText, int sleepMs, int exitCode = 0)
{
    const QJsonObject rule{{QStringLiteral("match"), QJsonArray()},
                           {QStringLiteral("stderr"), errorText},
                           {QStringLiteral("sleep_ms"), sleepMs},
                           {QStringLiteral("exit"), exitCode}};
    return {{QStringLiteral("calls"), true}, {QStringLiteral("rules"), QJsonArray{rule}}};
}

// A running process of a program other than QEMU, for locks that point at a foreign pid.
struct ForeignProcess
{
    QProcess process;
    bool start(const QString &program)
    {
        process.start(program, {QStringLiteral("30")});
        return process.waitForStarted(5000);
    }
    ~ForeignProcess()
    {
        process.kill();
        process.waitForFinished(5000);
    }
};

// A live process whose executable name cannot be read: on Linux a kernel thread.
quint32 processWithUnreadableName()
{
#ifdef Q_OS_LINUX
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        bool numeric = false;
        const quint32 pid = entry.toUInt(&numeric);
        if (!numeric || pid == 0)
            continue;
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = stat.readAll();
        const int close = text.lastIndexOf(')');
        const char state = close > 0 && close + 2 < text.size() ? text.at(close + 2) : 'Z';
        if (state != 'Z' && QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)).isEmpty())
            return pid;
    }
#endif
    return 0;
}

} // namespace

class tst_QemuMachine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void startResults_data();
    void startResults();
    void startWithoutAcceleration();
    void startTwice();
    void startFailsToLaunch();
    void lockFileUnwritable();
    void lockFileStates_data();
    void lockFileStates();
    void unreadableProcessNameCountsAsQemu();
    void lockWithoutOffset();
    void ports();
    void saveRefusedWhileRunning();
    void loadRefusesOtherVirtualizer();
    void newDeviceIdentity();
    void rename();
    void sdCardInsertion();
    void createSystemDisk();

private:
    QString binDir() const { return m_bin->path(); }
    std::unique_ptr<QEMUMachine> makeDevice(QEMUEngine &engine, const QString &name = QStringLiteral("dev"));

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_bin;
    std::unique_ptr<FakeProgram> m_qemu;
};

void tst_QemuMachine::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", m_home.path().toUtf8());
}

void tst_QemuMachine::init()
{
    m_bin = std::make_unique<QTemporaryDir>();
    QVERIFY(m_bin->isValid());
    qputenv("QV_QEMU_BIN_DIR", binDir().toUtf8());
    qunsetenv("QV_TRIGGER_ERROR");
    m_qemu = std::make_unique<FakeProgram>(binDir(), QStringLiteral("qemu-system-x86_64"));
    QVERIFY(m_qemu->isValid());
    QEMUEngine engine;
    QDir devices = engine.devicesDirectory();
    devices.removeRecursively();
    QVERIFY(QDir().mkpath(devices.absolutePath()));
}

void tst_QemuMachine::cleanup()
{
    QemuTestBed::killProcessesBelow(binDir());
    qunsetenv("QV_TRIGGER_ERROR");
    m_qemu.reset();
    m_bin.reset();
}

std::unique_ptr<QEMUMachine> tst_QemuMachine::makeDevice(QEMUEngine &engine, const QString &name)
{
    if (QemuTestBed::createDevice(engine, name).isEmpty())
        return {};
    return QemuTestBed::loadDevice(engine, name);
}

void tst_QemuMachine::startResults_data()
{
    QTest::addColumn<QString>("errorText");
    QTest::addColumn<int>("sleepMs");  // how long the stand-in lives
    QTest::addColumn<int>("expected");
    QTest::addColumn<QString>("line");  // expected critical line

    QTest::newRow("running") << QString() << 20000 << int(QEMUMachine::StartRunning) << QString();
    QTest::newRow("busy, exits at once")
            << QStringLiteral("qemu-system-x86_64: Could not access KVM kernel module: Device or resource busy\n")
            << 0 << int(QEMUMachine::StartDeviceBusy) << QStringLiteral("Device or resource busy");
    QTest::newRow("write lock")
            << QStringLiteral("qemu-system-x86_64: Failed to get \"write\" lock\nIs another process using the image?\n")
            << 0 << int(QEMUMachine::StartSystemFileLocked) << QStringLiteral("Another process is using a system file");
    QTest::newRow("port")
            << QStringLiteral("could not set up host forwarding rule 'tcp::6555-:5555': failed to find an available port\n")
            << 0 << int(QEMUMachine::StartPortInUse) << QStringLiteral("Another process is using the same port");
    QTest::newRow("memory, still running")
            << QStringLiteral("phys-bits too low: addressing limited\n") << 20000
            << int(QEMUMachine::StartMemoryNotSupported) << QString();
    QTest::newRow("early exit") << QStringLiteral("qemu-system-x86_64: something else\n") << 0
                                << int(QEMUMachine::StartFailed)
                                << QStringLiteral("[VMTools] QEMU process has stopped too early. Check qemu.log for more details");
}

void tst_QemuMachine::startResults()
{
    QFETCH(QString, errorText);
    QFETCH(int, sleepMs);
    QFETCH(int, expected);
    QFETCH(QString, line);

    m_qemu->setRules(qemuRules(errorText, sleepMs));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QVERIFY(machine);

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    const int result = machine->start(engine.qemuPath(), {QStringLiteral("-a"), QStringLiteral("b c")}, 14);
    QVERIFY(timer.elapsed() >= 2000);
    QCOMPARE(result, expected);
    QCOMPARE(m_qemu->calls(), QStringList{QStringLiteral("-a\tb c")});
    if (!line.isEmpty())
        QVERIFY2(log.contains(QtCriticalMsg, line), qPrintable(log.dump()));

    // QEMU's standard error lands in qemu.log; the lock records the process.
    QCOMPARE(QString::fromUtf8(readFile(machine->logFilePath()).data), errorText);
    QVERIFY(QFile::exists(machine->lockFilePath()));
    QVERIFY(machine->loadPid() != 0);
    const bool stillRunning = sleepMs > 0;
    QCOMPARE(machine->isQemuRunning(), stillRunning);
    QCOMPARE(machine->status(), stillRunning ? int(VMToolsMachine::StateRunning) : int(VMToolsMachine::StatePoweredOff));
    if (expected == QEMUMachine::StartRunning) {
        QCOMPARE(int(machine->portOffset()), 14);
        QCOMPARE(machine->qmpPort(), 23555 + 14);
        QVERIFY(machine->uptimeMs() >= 0);
        // A second object on the directory finds the running process and its offset.
        QEMUMachine again(&engine, machine->path());
        QCOMPARE(again.state(), int(VMToolsMachine::StateRunning));
        QCOMPARE(int(again.portOffset()), 14);
    } else {
        QCOMPARE(machine->portOffset(), quint16(65535));
    }
}

void tst_QemuMachine::startWithoutAcceleration()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    qputenv("QV_TRIGGER_ERROR", "hypervhaxmerror");
    QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartAccelerationUnusable));
    QVERIFY(!QFile::exists(machine->logFilePath()));
    QVERIFY(!QFile::exists(machine->lockFilePath()));
    QVERIFY(m_qemu->calls().isEmpty());
    // Through the engine the answer is the same.
    QCOMPARE(engine.startMachine(machine.get(), QString()), int(QEMUMachine::StartAccelerationUnusable));
    QVERIFY(m_qemu->calls().isEmpty());
}

void tst_QemuMachine::startTwice()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QCOMPARE(machine->start(engine.qemuPath(), {QStringLiteral("one")}, 0), int(QEMUMachine::StartRunning));
    const quint32 pid = machine->loadPid();

    LogCapture log;
    QCOMPARE(machine->start(engine.qemuPath(), {QStringLiteral("two")}, 7), int(QEMUMachine::StartRunning));
    QVERIFY2(log.contains(QtWarningMsg, "[VMTools] QEMU process is already running."), qPrintable(log.dump()));
    QCOMPARE(machine->loadPid(), pid);
    QCOMPARE(m_qemu->calls(), QStringList{QStringLiteral("one")});

    QVERIFY(!machine->writeLockFile(21, 1));
    QVERIFY(log.contains(QtWarningMsg, "[VMTools] The lock file already exists and QEMU seems to run."));
    QCOMPARE(machine->loadPid(), pid);
}

void tst_QemuMachine::startFailsToLaunch()
{
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    const QString program = binDir() + QStringLiteral("/missing-qemu");
    LogCapture log;
    QCOMPARE(machine->start(program, {QStringLiteral("-m"), QStringLiteral("256M")}, 0),
             int(QEMUMachine::StartFailed));
    QVERIFY2(log.contains(QtCriticalMsg, QStringLiteral("[VMTools] Failed to start QEMU process with cmd: \"%1\" args: (\"-m\", \"256M\")")
                                                 .arg(program)),
             qPrintable(log.dump()));
    QVERIFY(!QFile::exists(machine->lockFilePath()));
}

void tst_QemuMachine::lockFileUnwritable()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    // A directory in the lock file's place cannot be written, whoever runs the test.
    QVERIFY(QDir().mkpath(machine->lockFilePath()));

    LogCapture log;
    QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartFailed));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Failed to write PID file to disk"), qPrintable(log.dump()));
    QVERIFY(log.contains(QtCriticalMsg, "[VMTools] Failed create lock file."));
    // The kill acts on what the lock holds, which is nothing: the new QEMU is left running.
    QVERIFY(log.contains(QtDebugMsg, "[VMTools] Cannot stop QEMU because no PID was found"));
    QCOMPARE(QemuTestBed::processesBelow(binDir()).size(), 1);
}

void tst_QemuMachine::lockFileStates_data()
{
    QTest::addColumn<QString>("owner");  // "dead", "foreign", "prefix" (a program named "qemu")
    QTest::addColumn<bool>("running");

    QTest::newRow("dead pid") << QStringLiteral("dead") << false;
    QTest::newRow("live process of another program") << QStringLiteral("foreign") << false;
    QTest::newRow("name is a prefix of the QEMU name") << QStringLiteral("prefix") << true;
}

void tst_QemuMachine::lockFileStates()
{
    QFETCH(QString, owner);
    QFETCH(bool, running);

    QEMUEngine engine;
    auto machine = makeDevice(engine);
    ForeignProcess foreign;
    qint64 pid = 0;
    if (owner == QLatin1String("dead")) {
        pid = 4194303;  // the highest pid Linux can hand out; never in use in practice
        if (QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)))
            QSKIP("the test pid is in use");
    } else {
        FakeProgram program(binDir(), owner == QLatin1String("prefix") ? QStringLiteral("qemu")
                                                                        : QStringLiteral("sleeper"));
        program.setRules(qemuRules(QString(), 20000));
        QVERIFY(foreign.start(program.path()));
        pid = foreign.process.processId();
    }
    QemuTestBed::writeLock(machine->path(), pid, 7);

    LogCapture log;
    QCOMPARE(machine->isQemuRunning(), running);
    QCOMPARE(machine->status(), running ? int(VMToolsMachine::StateRunning) : int(VMToolsMachine::StatePoweredOff));
    QEMUMachine fresh(&engine, machine->path());
    QCOMPARE(fresh.state(), running ? int(VMToolsMachine::StateRunning) : int(VMToolsMachine::StatePoweredOff));
    QCOMPARE(fresh.portOffset(), running ? quint16(7) : quint16(65535));
    if (owner == QLatin1String("dead"))
        QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] See no QEMU process with PID %1").arg(pid)),
                 qPrintable(log.dump()));

    if (running) {
        // Taken for QEMU, so the forced stop really ends it.
        QVERIFY(machine->killQemu());
        QVERIFY(foreign.process.waitForFinished(5000));
    } else {
        QVERIFY(!machine->killQemu());
        QVERIFY2(log.contains(QtDebugMsg, "[VMTools] We have a stall lock file: let's remove it."), qPrintable(log.dump()));
        if (owner == QLatin1String("foreign"))
            QCOMPARE(foreign.process.state(), QProcess::Running);
    }
    QVERIFY(!QFile::exists(machine->lockFilePath()));
}

void tst_QemuMachine::unreadableProcessNameCountsAsQemu()
{
    const quint32 pid = processWithUnreadableName();
    if (pid == 0)
        QSKIP("no live process with an unreadable executable name on this host");
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QemuTestBed::writeLock(machine->path(), pid, 0);
    // Kept on purpose: an empty name passes the prefix test.
    QVERIFY(machine->isQemuProcess(pid));
    QVERIFY(machine->isQemuRunning());
    QCOMPARE(machine->status(), int(VMToolsMachine::StateRunning));
    QFile::remove(machine->lockFilePath());  // never let a test kill that process
}

void tst_QemuMachine::lockWithoutOffset()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    ForeignProcess qemu;
    QVERIFY(qemu.start(m_qemu->path()));
    QemuTestBed::writeLock(machine->path(), qemu.process.processId());

    QEMUMachine fresh(&engine, machine->path());
    QCOMPARE(fresh.state(), int(VMToolsMachine::StateRunning));
    QCOMPARE(fresh.portOffset(), quint16(65535));
    fresh.refreshRunData();
    QCOMPARE(fresh.portOffset(), quint16(65535));
    QemuTestBed::writeLock(machine->path(), qemu.process.processId(), 21);
    fresh.refreshRunData();
    QCOMPARE(fresh.portOffset(), quint16(21));
    QCOMPARE(fresh.qmpPort(), 23576);
}

void tst_QemuMachine::ports()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartRunning));

    QCOMPARE(machine->adbPort(), quint16(6555));
    QCOMPARE(machine->adbSerial(), QStringLiteral("127.0.0.1:6555"));
    QCOMPARE(machine->ipAddress(), QStringLiteral("127.0.0.1"));
    QCOMPARE(machine->qmpPort(), 23555);
    const QList<quint16> forwarded = {machine->forwardedPort1(), machine->forwardedPort2(),
                                      machine->forwardedPort3(), machine->forwardedPort4(),
                                      machine->forwardedPort5(), machine->forwardedPort6(),
                                      machine->forwardedPort7()};
    QCOMPARE(forwarded, (QList<quint16>{24810, 24800, 24297, 24296, 6379, 25000, 22468}));

    QemuTestBed::writeLock(machine->path(), machine->loadPid(), 700);
    machine->refreshRunData();
    QCOMPARE(machine->adbSerial(), QStringLiteral("127.0.0.1:7255"));
    QCOMPARE(machine->forwardedPort7(), quint16(23168));
    QCOMPARE(machine->qmpPort(), 24255);

    bool called = false;
    QCOMPARE(machine->ipAddressAsync([&called](const QString &) { called = true; }),
             QStringLiteral("127.0.0.1"));
    QVERIFY(!called);
}

void tst_QemuMachine::saveRefusedWhileRunning()
{
    m_qemu->setRules(qemuRules(QString(), 20000));
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    const QByteArray before = readFile(machine->deviceJsonPath()).data;
    QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartRunning));

    LogCapture log;
    QVERIFY(!machine->setFullscreen(true));
    QVERIFY(!machine->setUuid(QStringLiteral("abc")));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Writing in shared folder while QEMU is running is forbidden"),
             qPrintable(log.dump()));
    QCOMPARE(readFile(machine->deviceJsonPath()).data, before);

    QVERIFY(machine->killQemu());
    QVERIFY(machine->setFullscreen(true));
    QVERIFY(readFile(machine->deviceJsonPath()).data != before);
}

void tst_QemuMachine::loadRefusesOtherVirtualizer()
{
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QVERIFY(machine->load());
    QVERIFY(machine->reload());

    QJsonObject json = QJsonDocument::fromJson(readFile(machine->deviceJsonPath()).data).object();
    QCOMPARE(json.value(QStringLiteral("virtualizer")).toString(), QStringLiteral("QEMU"));
    json.insert(QStringLiteral("virtualizer"), QStringLiteral("qemu"));
    QFile file(machine->deviceJsonPath());
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(QJsonDocument(json).toJson());
    file.close();

    LogCapture log;
    QEMUMachine other(&engine, machine->path());
    QVERIFY(!other.load());
    QVERIFY(!other.reload());
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_QemuMachine::newDeviceIdentity()
{
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    const QString first = machine->uuid();
    QVERIFY(!QUuid(first).isNull());

    QVERIFY(machine->regenerateUuid());
    const QString second = machine->uuid();
    QVERIFY(second != first);
    QVERIFY(!second.startsWith(QLatin1Char('{')));
    QVERIFY(!QUuid(second).isNull());
    // Saved at once: a fresh load sees it.
    auto reloaded = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QVERIFY(reloaded);
    QCOMPARE(reloaded->uuid(), second);
    QCOMPARE(reloaded->name(), QStringLiteral("dev"));
}

void tst_QemuMachine::rename()
{
    QEMUEngine engine;
    auto machine = makeDevice(engine, QStringLiteral("old"));
    const QString oldPath = machine->path();
    const QDateTime modified = QFileInfo(machine->deviceJsonPath()).lastModified();

    QVERIFY(machine->rename(QStringLiteral("old")));
    QCOMPARE(machine->path(), oldPath);
    QCOMPARE(QFileInfo(machine->deviceJsonPath()).lastModified(), modified);

    QVERIFY(machine->rename(QStringLiteral("new")));
    QCOMPARE(machine->name(), QStringLiteral("new"));
    QCOMPARE(machine->path(), engine.devicePath(QStringLiteral("new")));
    QVERIFY(!QFileInfo::exists(oldPath));
    QCOMPARE(machine->lockFilePath(), machine->path() + QStringLiteral("/qemu.lock"));
    QVERIFY(machine->save());
    QVERIFY(engine.isMachineLoadable(QStringLiteral("new")));

    // An existing target directory makes the rename fail and leaves everything in place.
    QVERIFY(QDir().mkpath(engine.devicePath(QStringLiteral("taken"))));
    QVERIFY(!machine->rename(QStringLiteral("taken")));
    QCOMPARE(machine->name(), QStringLiteral("new"));
}

void tst_QemuMachine::sdCardInsertion()
{
    FakeProgram img(binDir(), QStringLiteral("qemu-img"));
    img.setRules({{QStringLiteral("calls"), true}});
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    QCOMPARE(machine->sdCardSize(), qint64(0));
    const QByteArray before = readFile(machine->deviceJsonPath()).data;

    QVERIFY(!machine->setSdCardInserted(true));
    QVERIFY(!machine->isSdCardInserted());
    QCOMPARE(readFile(machine->deviceJsonPath()).data, before);
    QVERIFY(img.calls().isEmpty());

    // Removing needs no size and creates nothing.
    QVERIFY(machine->setSdCardInserted(false));
    QVERIFY(img.calls().isEmpty());

    QVERIFY(machine->setSdCardSize(128));  // no image yet: nothing to resize
    QVERIFY(img.calls().isEmpty());
    QVERIFY(machine->setSdCardInserted(true));
    QVERIFY(machine->isSdCardInserted());
    QCOMPARE(img.calls().size(), 1);
    QVERIFY2(img.calls().first().contains(QStringLiteral("sdcard.qcow2")), qPrintable(img.calls().first()));
}

void tst_QemuMachine::createSystemDisk()
{
    QV_REQUIRE_PROGRAM(realImg, "qemu-img");
    FakeProgram img(binDir(), QStringLiteral("qemu-img"));
    img.setRules({{QStringLiteral("calls"), true}, {QStringLiteral("passthrough"), realImg}});
    QEMUEngine engine;
    auto machine = makeDevice(engine);
    const OsImage os = machine->osImage();
    const QString imageDir = QDir::cleanPath(systemImageDirectory(os.osVersion, os.imageVersion));

    // The archive is missing and nothing is extracted yet: no disk can be made.
    QVERIFY(!machine->createSystemDisk(os));
    QVERIFY(!QFile::exists(machine->path() + QStringLiteral("/system.qcow2")));

    // An extracted image: its VMDK is converted once, then every device gets an overlay.
    QVERIFY(QDir().mkpath(imageDir));
    for (const char *disk : {"system.vmdk", "data.vmdk"}) {
        QVERIFY(QProcess::execute(realImg, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                                            QStringLiteral("vmdk"), imageDir + QLatin1Char('/') + QLatin1String(disk),
                                            QStringLiteral("16M")}) == 0);
    }
    QVERIFY(machine->createSystemDisk(os));
    QVERIFY(QFile::exists(imageDir + QStringLiteral("/system.qcow2")));
    QVERIFY(QFile::exists(machine->path() + QStringLiteral("/system.qcow2")));
    const int convertsAfterFirst = img.calls().filter(QStringLiteral("convert")).size();
    QCOMPARE(convertsAfterFirst, 1);

    auto second = makeDevice(engine, QStringLiteral("second"));
    QVERIFY(second->createSystemDisk(os));
    QCOMPARE(img.calls().filter(QStringLiteral("convert")).size(), 1);
    QProcess info;
    info.start(realImg, {QStringLiteral("info"), second->path() + QStringLiteral("/system.qcow2")});
    QVERIFY(info.waitForFinished(30000));
    QVERIFY(QString::fromUtf8(info.readAllStandardOutput()).contains(imageDir + QStringLiteral("/system.qcow2")));
}

QTEST_GUILESS_MAIN(tst_QemuMachine)
#include "tst_qemumachine.moc"
