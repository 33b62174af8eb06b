#include "fakeprogram.h"
#include "logcapture.h"
#include "qemucommandline.h"
#include "qemutestbed.h"
#include "testenv.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdio>

namespace {

QJsonObject rule(const QStringList &match, const QJsonObject &effect)
{
    QJsonObject r = effect;
    r.insert(QStringLiteral("match"), QJsonArray::fromStringList(match));
    return r;
}

QJsonObject rules(const QJsonArray &list, bool recordCalls = true)
{
    return {{QStringLiteral("calls"), recordCalls}, {QStringLiteral("rules"), list}};
}

// A QEMU that stays up long enough for any test, and dies on its own if a test leaks it.
QJsonObject longRunningQemu()
{
    return rules({rule({}, {{QStringLiteral("sleep_ms"), 20000}})});
}

// Child mode of this executable: prints the version values twice, before and after the
// environment changes, so the parent can see that each variable is read only once.
int printVersionBounds()
{
    QEMUEngine engine;
    auto print = [&engine] {
        std::printf("%s %s %s\n", qPrintable(engine.minimumVersion().toString()),
                    qPrintable(engine.maximumVersion().toString()),
                    qPrintable(engine.version().toString()));
    };
    print();
    qputenv("QV_QEMU_MIN_VERSION", "1.1.1");
    qputenv("QV_QEMU_MAX_VERSION", "2.2.2");
    qputenv("QV_QEMU_VERSION", "3.3.3");
    print();
    return 0;
}

} // namespace

class tst_QemuEngine : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void construction_data();
    void construction();
    void versionQuery_data();
    void versionQuery();
    void failedVersionQueryKeepsOldValue();
    void versionBounds_data();
    void versionBounds();
    void installation_data();
    void installation();
    void accelerationProbe_data();
    void accelerationProbe();
    void probeStartFailure();
    void hypervisorTrigger();
    void realQemu();
    void listMachines();
    void startMachineArchitecture_data();
    void startMachineArchitecture();
    void startMachineAlreadyRunning();
    void startMachineLaunches();
    void findPortOffset_data();
    void findPortOffset();
    void noFreePortOffset();
    void stopMachineWithoutMonitor();
    void deleteMachine();

private:
    QString binDir() const { return m_bin->path(); }

    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_bin;
};

void tst_QemuEngine::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", m_home.path().toUtf8());
    qunsetenv("QV_QEMU_VERSION");
    qunsetenv("QV_QEMU_MIN_VERSION");
    qunsetenv("QV_QEMU_MAX_VERSION");
    qunsetenv("QV_OSIMAGE_ARCH_LIST");
    qunsetenv("QV_QEMU_START_ARGS");
}

void tst_QemuEngine::init()
{
    m_bin = std::make_unique<QTemporaryDir>();
    QVERIFY(m_bin->isValid());
    qputenv("QV_QEMU_BIN_DIR", binDir().toUtf8());
    qunsetenv("QV_TRIGGER_ERROR");
    QEMUEngine engine;
    QDir devices = engine.devicesDirectory();
    devices.removeRecursively();
    QVERIFY(QDir().mkpath(devices.absolutePath()));
}

void tst_QemuEngine::cleanup()
{
    QemuTestBed::killProcessesBelow(binDir());
    qunsetenv("QV_TRIGGER_ERROR");
    qunsetenv("QV_OSIMAGE_ARCH_LIST");
    m_bin.reset();
}

void tst_QemuEngine::construction_data()
{
    QTest::addColumn<int>("binSetting");  // 0 unset, 1 empty, 2 a directory
    QTest::addColumn<bool>("withShare");

    QTest::newRow("unset") << 0 << false;
    QTest::newRow("empty") << 1 << false;
    QTest::newRow("set, no share") << 2 << false;
    QTest::newRow("set, with share") << 2 << true;
}

void tst_QemuEngine::construction()
{
    QFETCH(int, binSetting);
    QFETCH(bool, withShare);

    QTemporaryDir root;
    const QString bin = root.filePath(QStringLiteral("bin"));
    QVERIFY(QDir().mkpath(bin));
    if (withShare)
        QVERIFY(QDir().mkpath(root.filePath(QStringLiteral("share"))));
    if (binSetting == 0)
        qunsetenv("QV_QEMU_BIN_DIR");
    else
        qputenv("QV_QEMU_BIN_DIR", binSetting == 1 ? QByteArray() : bin.toUtf8());

    LogCapture log;
    QEMUEngine engine(HostPlatform::forWindows());
    const QString expectedBin = binSetting == 2
            ? bin : QCoreApplication::applicationDirPath() + QStringLiteral("/qemu/x86_64");
    QCOMPARE(engine.qemuPath(), expectedBin + QStringLiteral("/qemu-system-x86_64.exe"));
    QCOMPARE(engine.qemuImgPath(), expectedBin + QStringLiteral("/qemu-img.exe"));
    if (binSetting == 2)
        QCOMPARE(engine.shareDir(), withShare ? root.filePath(QStringLiteral("share")) : root.path());
    QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] QEMU path: ") + engine.qemuPath()),
             qPrintable(log.dump()));
}

void tst_QemuEngine::versionQuery_data()
{
    QTest::addColumn<QString>("output");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("expected");

    QTest::newRow("dirty build") << QStringLiteral("QEMU emulator version 8.1.2 (v8.1.2-dirty)\n") << 0
                                 << QStringLiteral("8.1.2");
    QTest::newRow("distribution build")
            << QStringLiteral("QEMU emulator version 7.2.22 (Debian 1:7.2+dfsg-7)\nCopyright (c) 2003-2022\n")
            << 0 << QStringLiteral("7.2.22");
    QTest::newRow("release candidate") << QStringLiteral("QEMU emulator version 9.0.0-rc1\n") << 0
                                       << QStringLiteral("9.0.0-rc1");
    QTest::newRow("no version word") << QStringLiteral("QEMU emulator 8.1.2\n") << 0 << QString();
    QTest::newRow("nothing") << QString() << 0 << QString();
    QTest::newRow("failing") << QStringLiteral("QEMU emulator version 8.1.2\n") << 1 << QString();
}

void tst_QemuEngine::versionQuery()
{
    QFETCH(QString, output);
    QFETCH(int, exitCode);
    QFETCH(QString, expected);

    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    FakeProgram img(binDir(), QStringLiteral("qemu-img"));
    QVERIFY(qemu.isValid() && img.isValid());
    qemu.setRules(rules({rule({QStringLiteral("--version")},
                              {{QStringLiteral("stdout"), output}, {QStringLiteral("exit"), exitCode}})}));

    LogCapture log;
    QEMUEngine engine;
    const QEMUEngine::InstallStatus status = engine.checkInstallation(true);
    // A failing version query does not make QEMU count as missing.
    QCOMPARE(status.code, 0);
    QVERIFY(status.message.isEmpty());
    QCOMPARE(engine.versionString(), expected);
    QCOMPARE(engine.version(), parseVersion(expected));
    QCOMPARE(qemu.calls(), QStringList{QStringLiteral("--version")});
    if (exitCode != 0) {
        QVERIFY2(log.contains(QtCriticalMsg, QStringLiteral("[VMTools] %1 --version failed.").arg(engine.qemuPath())),
                 qPrintable(log.dump()));
    } else {
        QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] QEMU version string : ") + expected),
                 qPrintable(log.dump()));
    }
}

void tst_QemuEngine::failedVersionQueryKeepsOldValue()
{
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    FakeProgram img(binDir(), QStringLiteral("qemu-img"));
    qemu.setRules(rules({rule({QStringLiteral("--version")},
                              {{QStringLiteral("stdout"), QStringLiteral("QEMU emulator version 8.1.2\n")},
                               {QStringLiteral("times"), 1}}),
                         rule({QStringLiteral("--version")}, {{QStringLiteral("exit"), 2}})}));
    QEMUEngine engine;
    engine.checkInstallation(true);
    QCOMPARE(engine.versionString(), QStringLiteral("8.1.2"));
    engine.checkInstallation(true);
    QCOMPARE(engine.versionString(), QStringLiteral("8.1.2"));
    QCOMPARE(qemu.calls().size(), 2);
}

void tst_QemuEngine::versionBounds_data()
{
    QTest::addColumn<QByteArray>("minimum");  // null: unset
    QTest::addColumn<QByteArray>("maximum");
    QTest::addColumn<QByteArray>("installed");
    QTest::addColumn<QString>("expected");   // "min max version"

    QTest::newRow("defaults") << QByteArray() << QByteArray() << QByteArray()
                              << QStringLiteral("6.2.0 -1.0.0 0.0.0");
    QTest::newRow("empty values count as unset") << QByteArray("") << QByteArray("") << QByteArray("")
                                                 << QStringLiteral("6.2.0 -1.0.0 0.0.0");
    QTest::newRow("all set") << QByteArray("7.0.0") << QByteArray("8.2.0-rc1") << QByteArray("7.2.1")
                             << QStringLiteral("7.0.0 8.2.0-rc1 7.2.1");
}

void tst_QemuEngine::versionBounds()
{
    QFETCH(QByteArray, minimum);
    QFETCH(QByteArray, maximum);
    QFETCH(QByteArray, installed);
    QFETCH(QString, expected);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QList<QPair<QString, QByteArray>> values = {{QStringLiteral("QV_QEMU_MIN_VERSION"), minimum},
                                                      {QStringLiteral("QV_QEMU_MAX_VERSION"), maximum},
                                                      {QStringLiteral("QV_QEMU_VERSION"), installed}};
    for (const auto &value : values) {
        if (value.second.isNull())
            env.remove(value.first);
        else
            env.insert(value.first, QString::fromUtf8(value.second));
    }
    QProcess child;
    child.setProcessEnvironment(env);
    child.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--print-version-bounds")});
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitCode(), 0);
    const QStringList lines = QString::fromUtf8(child.readAllStandardOutput()).split(QLatin1Char('\n'),
                                                                                       Qt::SkipEmptyParts);
    // The second line is printed after the child changed all three variables.
    QCOMPARE(lines, QStringList({expected, expected}));
}

void tst_QemuEngine::installation_data()
{
    QTest::addColumn<bool>("hasQemu");
    QTest::addColumn<bool>("hasImg");
    QTest::addColumn<QByteArray>("trigger");
    QTest::addColumn<QString>("missing");  // "img", "qemu" or empty

    QTest::newRow("installed") << true << true << QByteArray() << QString();
    QTest::newRow("both missing: qemu-img named") << false << false << QByteArray() << QStringLiteral("img");
    QTest::newRow("qemu-img missing") << true << false << QByteArray() << QStringLiteral("img");
    QTest::newRow("emulator missing") << false << true << QByteArray() << QStringLiteral("qemu");
    QTest::newRow("trigger") << true << true << QByteArray("a;qemunotinstalled;b") << QStringLiteral("img");
    QTest::newRow("other trigger") << true << true << QByteArray("vboxnotinstalled") << QString();
}

void tst_QemuEngine::installation()
{
    QFETCH(bool, hasQemu);
    QFETCH(bool, hasImg);
    QFETCH(QByteArray, trigger);
    QFETCH(QString, missing);

    std::unique_ptr<FakeProgram> qemu, img;
    if (hasQemu)
        qemu = std::make_unique<FakeProgram>(binDir(), QStringLiteral("qemu-system-x86_64"));
    if (hasImg)
        img = std::make_unique<FakeProgram>(binDir(), QStringLiteral("qemu-img"));
    if (!trigger.isEmpty())
        qputenv("QV_TRIGGER_ERROR", trigger);

    LogCapture log;
    QEMUEngine engine;
    const QEMUEngine::InstallStatus status = engine.checkInstallation(true);
    const QStringList errors = engine.installationErrors();
    if (missing.isEmpty()) {
        QCOMPARE(status.code, 0);
        QVERIFY(status.message.isEmpty());
        QVERIFY(errors.isEmpty());
        QVERIFY(!log.containsPrefix(QtWarningMsg, QStringLiteral("[VMTools] Could not find")));
        return;
    }
    const QString path = missing == QLatin1String("img") ? engine.qemuImgPath() : engine.qemuPath();
    QCOMPARE(status.code, 1);
    const QString link = QStringLiteral("<a href='https://www.quorvel.com/download'>www.quorvel.com/download</a>");
    if (qEnvironmentVariableIsEmpty("QV_WEBSITE_URL"))
        QCOMPARE(status.message, QStringLiteral("install.error.%1.%2").arg(path, link));
    else
        QVERIFY(status.message.startsWith(QStringLiteral("install.error.%1.").arg(path)));
    QCOMPARE(errors, QStringList{status.message});
    QVERIFY2(log.contains(QtWarningMsg, QStringLiteral("[VMTools] Could not find ") + path), qPrintable(log.dump()));
}

void tst_QemuEngine::accelerationProbe_data()
{
    QTest::addColumn<QString>("errorText");
    QTest::addColumn<int>("sleepMs");
    QTest::addColumn<bool>("supported");

    QTest::newRow("accelerator works") << QString() << 20000 << true;
    QTest::newRow("invalid accelerator")
            << QStringLiteral("qemu-system-x86_64.exe: -accel hax: invalid accelerator hax\n") << 20000 << false;
    QTest::newRow("no accelerator found, exits")
            << QStringLiteral("No accelerator found!\n") << 0 << false;
    QTest::newRow("falling back")
            << QStringLiteral("whpx: injection failed, MSI (0, 0) delivery: 0, dest_mode: 0\n"
                              "invalid accelerator whpx, falling back to tcg\n") << 20000 << true;
    QTest::newRow("exits at once, silent") << QString() << 0 << true;
}

void tst_QemuEngine::accelerationProbe()
{
    QFETCH(QString, errorText);
    QFETCH(int, sleepMs);
    QFETCH(bool, supported);

    // The Windows platform pins the probe's exact arguments; the stand-in runs anywhere.
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64.exe"));
    FakeProgram img(binDir(), QStringLiteral("qemu-img.exe"));
    qemu.setRules(rules({rule({QStringLiteral("-accel")}, {{QStringLiteral("stderr"), errorText},
                                                           {QStringLiteral("sleep_ms"), sleepMs}})}));

    LogCapture log;
    QEMUEngine engine(HostPlatform::forWindows());
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(engine.checkInstallation(false).code, 0);
    QVERIFY(timer.elapsed() >= 1000);
    QCOMPARE(engine.isAccelerationAvailable(), supported);

    QCOMPARE(qemu.calls().value(0), QStringLiteral("-accel\twhpx\t-accel\thax\t-nographic"));
    QVERIFY2(log.contains(QtDebugMsg, "Checking QEMU acceleration support..."), qPrintable(log.dump()));
    QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("QEMU acceleration support ")
                                          + (supported ? QLatin1String("true") : QLatin1String("false"))),
             qPrintable(log.dump()));
    QCOMPARE(log.count(QStringLiteral("A Hyper-V or HAXM issue is detected")), supported ? 0 : 1);
    // The probe ends the QEMU it started.
    QTRY_VERIFY_WITH_TIMEOUT(QemuTestBed::processesBelow(binDir()).isEmpty(), 3000);
}

void tst_QemuEngine::probeStartFailure()
{
    LogCapture log;
    QEMUEngine engine(HostPlatform::forWindows());
    engine.checkInstallation(false);
    QVERIFY(!engine.isAccelerationAvailable());
    QVERIFY2(log.contains(QtCriticalMsg, QStringLiteral("Failed to start QEMU process with cmd= %1 and args= "
                                                        "-accel whpx -accel hax -nographic")
                                                 .arg(engine.qemuPath())),
             qPrintable(log.dump()));
}

void tst_QemuEngine::hypervisorTrigger()
{
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    FakeProgram img(binDir(), QStringLiteral("qemu-img"));
    QEMUEngine engine;
    engine.checkInstallation(false);
    QVERIFY(engine.isAccelerationAvailable());
    qputenv("QV_TRIGGER_ERROR", "hypervhaxmerror");
    QVERIFY(!engine.isAccelerationAvailable());
    qunsetenv("QV_TRIGGER_ERROR");
    QVERIFY(engine.isAccelerationAvailable());
}

void tst_QemuEngine::realQemu()
{
    QV_REQUIRE_PROGRAM(qemuPath, "qemu-system-x86_64");
    QV_REQUIRE_PROGRAM(imgPath, "qemu-img");
    qputenv("QV_QEMU_BIN_DIR", QFileInfo(qemuPath).absolutePath().toUtf8());
    LogCapture log;
    QEMUEngine engine;
    QCOMPARE(engine.checkInstallation(false).code, 0);
    QVERIFY2(!engine.versionString().isEmpty(), qPrintable(log.dump()));
    QVERIFY(engine.version() >= engine.minimumVersion());
    // On Linux the probe asks for kvm and then tcg, so one of them always takes QEMU.
    QVERIFY2(engine.isAccelerationAvailable(), qPrintable(log.dump()));
    QVERIFY(engine.installationErrors().isEmpty());
}

void tst_QemuEngine::listMachines()
{
    QEMUEngine engine;
    QVERIFY(!QemuTestBed::createDevice(engine, QStringLiteral("alpha")).isEmpty());
    QVERIFY(!QemuTestBed::createDevice(engine, QStringLiteral("beta")).isEmpty());
    // Another virtualizer's device, a broken description and an empty directory are skipped.
    const QString other = QemuTestBed::createDevice(engine, QStringLiteral("other"));
    QFile json(other + QStringLiteral("/shared/config/device.json"));
    QVERIFY(json.open(QIODevice::ReadWrite));
    QByteArray text = json.readAll().replace("\"QEMU\"", "\"Other\"");
    json.resize(0);
    json.write(text);
    json.close();
    const QString broken = QemuTestBed::createDevice(engine, QStringLiteral("broken"));
    QFile brokenJson(broken + QStringLiteral("/shared/config/device.json"));
    QVERIFY(brokenJson.open(QIODevice::WriteOnly | QIODevice::Truncate));
    brokenJson.write("{ not json");
    brokenJson.close();
    QVERIFY(QDir().mkpath(engine.devicePath(QStringLiteral("empty"))));

    QList<QPair<int, int>> progress;
    const QList<VMToolsMachine *> machines =
            engine.listMachines([&progress](int done, int total) { progress.append({done, total}); });
    QStringList names;
    for (VMToolsMachine *machine : machines)
        names << machine->name();
    qDeleteAll(machines);
    names.sort();
    QCOMPARE(names, QStringList({QStringLiteral("alpha"), QStringLiteral("beta")}));
    QCOMPARE(progress, (QList<QPair<int, int>>{{1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}}));

    QVERIFY(engine.isMachineLoadable(QStringLiteral("alpha")));
    QVERIFY(!engine.isMachineLoadable(QStringLiteral("other")));
    QVERIFY(!engine.isMachineLoadable(QStringLiteral("missing")));
    QCOMPARE(engine.loadMachine(QStringLiteral("missing")), nullptr);
    QCOMPARE(engine.devicePath(QStringLiteral("alpha")),
             engine.devicesDirectory().absoluteFilePath(QStringLiteral("alpha")));
    const QList<VMToolsMachine *> again = engine.listMachines({});  // no progress callback
    QCOMPARE(again.size(), 2);
    qDeleteAll(again);
}

void tst_QemuEngine::startMachineArchitecture_data()
{
    QTest::addColumn<QByteArray>("archList");  // null: unset
    QTest::addColumn<QString>("arch");
    QTest::addColumn<QString>("refusal");      // expected list text, or empty when accepted

    QTest::newRow("default, x86_64") << QByteArray() << QStringLiteral("x86_64") << QString();
    QTest::newRow("default, x86") << QByteArray() << QStringLiteral("x86") << QString();
    QTest::newRow("default, arm64") << QByteArray() << QStringLiteral("arm64") << QStringLiteral("x86|x86_64");
    QTest::newRow("case matters") << QByteArray() << QStringLiteral("X86_64") << QStringLiteral("x86|x86_64");
    QTest::newRow("list replaces default") << QByteArray(";arm64;;riscv;") << QStringLiteral("x86_64")
                                           << QStringLiteral("arm64|riscv");
    QTest::newRow("list accepts") << QByteArray("arm64") << QStringLiteral("arm64") << QString();
    QTest::newRow("only separators keep default") << QByteArray(";;") << QStringLiteral("x86") << QString();
    QTest::newRow("empty keeps default") << QByteArray("") << QStringLiteral("mips") << QStringLiteral("x86|x86_64");
}

void tst_QemuEngine::startMachineArchitecture()
{
    QFETCH(QByteArray, archList);
    QFETCH(QString, arch);
    QFETCH(QString, refusal);

    if (!archList.isNull())
        qputenv("QV_OSIMAGE_ARCH_LIST", archList);
    // The stand-in reports the device busy, so an accepted start ends quickly after its wait.
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    qemu.setRules(rules({rule({}, {{QStringLiteral("stderr"), QStringLiteral("device or resource busy")}})}));
    QEMUEngine engine;
    const QString path = QemuTestBed::createDevice(engine, QStringLiteral("dev"), arch);
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QVERIFY(machine);

    LogCapture log;
    const int result = engine.startMachine(machine.get(), QString());
    if (refusal.isEmpty()) {
        QCOMPARE(result, int(QEMUMachine::StartDeviceBusy));
        QCOMPARE(qemu.calls().size(), 1);
    } else {
        QCOMPARE(result, int(QEMUMachine::StartArchUnsupported));
        QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] Incompatible OsImage arch (expected: %1, actual: %2)")
                                                  .arg(refusal, arch)),
                 qPrintable(log.dump()));
        QVERIFY(qemu.calls().isEmpty());
        QVERIFY(!QFile::exists(path + QStringLiteral("/qemu.log")));
    }
}

void tst_QemuEngine::startMachineAlreadyRunning()
{
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    qemu.setRules(longRunningQemu());
    QEMUEngine engine;
    const QString path = QemuTestBed::createDevice(engine, QStringLiteral("dev"));
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QCOMPARE(machine->start(engine.qemuPath(), {QStringLiteral("first")}, 0), int(QEMUMachine::StartRunning));

    LogCapture log;
    QCOMPARE(engine.startMachine(machine.get(), QString()), int(QEMUMachine::StartRunning));
    QVERIFY2(log.contains(QtDebugMsg, "[VMTools] Virtual Machine status: on. Nothing to do."), qPrintable(log.dump()));
    QCOMPARE(qemu.calls(), QStringList{QStringLiteral("first")});
}

void tst_QemuEngine::startMachineLaunches()
{
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    qemu.setRules(longRunningQemu());
    QEMUEngine engine;
    const QString path = QemuTestBed::createDevice(engine, QStringLiteral("dev"), QStringLiteral("x86_64"), 512);
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QVERIFY(machine);
    const int offset = engine.findPortOffset();
    QVERIFY(offset >= 0);

    qputenv("QV_QEMU_START_ARGS", "-smp=3");
    LogCapture log;
    const int result = engine.startMachine(machine.get(), QString());
    qunsetenv("QV_QEMU_START_ARGS");
    QCOMPARE(result, int(QEMUMachine::StartRunning));
    QCOMPARE(int(machine->portOffset()), offset);

    const QStringList calls = qemu.calls();
    QCOMPARE(calls.size(), 1);
    const QStringList arguments = calls.first().split(QLatin1Char('\t'));
    QemuLaunchSpec launch;
    launch.machinePath = path;
    launch.memoryMegabytes = 512;
    launch.cpuCount = 1;
    launch.portOffset = quint16(offset);
    launch.shareDir = engine.shareDir();
    launch.showWindow = qEnvironmentVariableIsSet("QV_HYPERVISOR_WINDOW");
    QCOMPARE(arguments, QemuCommandLine(engine.platform()).arguments(launch, QStringLiteral("-smp=3")));
    QVERIFY(arguments.contains(QStringLiteral("tcp:localhost:%1,server,nowait").arg(23555 + offset)));
    QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] Start command: ")
                                          + QemuCommandLine::startCommandText(engine.qemuPath(), arguments)),
             qPrintable(log.dump()));

    // The running device holds its offset: the next search skips it.
    const int next = engine.findPortOffset();
    QVERIFY(next > offset);
}

void tst_QemuEngine::findPortOffset_data()
{
    QTest::addColumn<QList<int>>("busyPorts");
    QTest::addColumn<bool>("runningAtZero");
    QTest::addColumn<int>("expected");

    QTest::newRow("all free") << QList<int>() << false << 0;
    QTest::newRow("ADB port busy") << QList<int>{6555} << false << 7;
    QTest::newRow("last forward busy") << QList<int>{25000} << false << 7;
    QTest::newRow("two offsets busy") << QList<int>{24296, 6379 + 7} << false << 14;
    QTest::newRow("QMP port is not probed") << QList<int>{23555} << false << 0;
    QTest::newRow("running device holds zero") << QList<int>() << true << 7;
}

void tst_QemuEngine::findPortOffset()
{
    QFETCH(QList<int>, busyPorts);
    QFETCH(bool, runningAtZero);
    QFETCH(int, expected);

    std::vector<std::unique_ptr<QTcpServer>> listeners;
    for (int port : busyPorts) {
        listeners.push_back(std::make_unique<QTcpServer>());
        if (!listeners.back()->listen(QHostAddress::Any, quint16(port)))
            QSKIP("a test port is taken by another program");
    }
    QEMUEngine engine;
    if (runningAtZero) {
        FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
        qemu.setRules(longRunningQemu());
        QemuTestBed::createDevice(engine, QStringLiteral("dev"));
        auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
        QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartRunning));
    }
    QCOMPARE(engine.findPortOffset(), expected);
}

void tst_QemuEngine::noFreePortOffset()
{
    std::vector<std::unique_ptr<QTcpServer>> listeners;
    for (int offset = 0; offset <= 693; offset += 7) {
        listeners.push_back(std::make_unique<QTcpServer>());
        if (!listeners.back()->listen(QHostAddress::Any, quint16(24800 + offset)))
            QSKIP("a test port is taken by another program");
    }
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    qemu.setRules(longRunningQemu());
    QEMUEngine engine;
    QemuTestBed::createDevice(engine, QStringLiteral("dev"));
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));

    QCOMPARE(engine.findPortOffset(), -1);
    LogCapture log;
    QCOMPARE(engine.startMachine(machine.get(), QString()), int(QEMUMachine::StartFailed));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Failed to determine a port offset"), qPrintable(log.dump()));
    QVERIFY(qemu.calls().isEmpty());
}

void tst_QemuEngine::stopMachineWithoutMonitor()
{
    FakeProgram qemu(binDir(), QStringLiteral("qemu-system-x86_64"));
    qemu.setRules(longRunningQemu());
    QEMUEngine engine;
    const QString path = QemuTestBed::createDevice(engine, QStringLiteral("dev"));
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QCOMPARE(machine->start(engine.qemuPath(), {}, 0), int(QEMUMachine::StartRunning));
    QCOMPARE(QemuTestBed::processesBelow(binDir()).size(), 1);

    // The stand-in has no QMP monitor, so only the forced stop can end it.
    LogCapture log;
    QVERIFY(engine.stopMachine(machine.get()));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Failed to quit VM gracefully"), qPrintable(log.dump()));
    QVERIFY(!QFile::exists(machine->lockFilePath()));
    QVERIFY(QemuTestBed::processesBelow(binDir()).isEmpty());
    QCOMPARE(machine->status(), int(VMToolsMachine::StatePoweredOff));

    // Nothing left to stop.
    QVERIFY(!engine.stopMachine(machine.get()));
    QVERIFY(log.contains(QtDebugMsg, "[VMTools] Cannot stop QEMU because no PID was found"));
}

void tst_QemuEngine::deleteMachine()
{
    QEMUEngine engine;
    const QString path = QemuTestBed::createDevice(engine, QStringLiteral("dev"));
    auto machine = QemuTestBed::loadDevice(engine, QStringLiteral("dev"));
    QVERIFY(machine);
    LogCapture log;
    QVERIFY(engine.deleteMachine(machine.get()));
    QVERIFY(!QFileInfo::exists(path));
    QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] deleteMachine() with path ") + path),
             qPrintable(log.dump()));
    QVERIFY(!engine.deleteMachine(nullptr));
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], "--print-version-bounds") == 0)
        return printVersionBounds();
    tst_QemuEngine test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_qemuengine.moc"
