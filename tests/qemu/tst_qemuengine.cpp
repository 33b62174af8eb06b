#include "casetable.h"
#include "devicelock.h"
#include "fakeprogram.h"
#include "fixtures.h"
#include "logcapture.h"
#include "multisettings.h"
#include "portoffsetreservation.h"
#include "processutils.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testfiles.h"
#include <QJsonArray>
#include <QTcpServer>
#include <QtTest>


// Runs in a private network namespace: it takes the fixed device ports.
class tst_QemuEngine : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home, m_bin;
    std::unique_ptr<FakeProgram> m_qemu;
    qint64 m_started = 0;

    void scriptQemu(const QString &errorText, int sleepMs)
    {
        m_qemu->setRules({{"calls", true}, {"rules", QJsonArray{QJsonObject{{"match", QJsonArray()}, {"stderr", errorText}, {"sleep_ms", sleepMs}}}}});
    }
    std::unique_ptr<QEMUMachine> newDevice(QEMUEngine &engine, const QString &name)
    {
        return std::unique_ptr<QEMUMachine>(QEMUMachine(&engine, engine.devicePath(name), testProfile(), testImage()).save() ? static_cast<QEMUMachine *>(engine.loadMachine(name)) : nullptr);
    }

private slots:
    void initTestCase()
    {
        qputenv("QV_HOME", m_home.path().toUtf8());
        qputenv("QV_QEMU_BIN_DIR", m_bin.path().toUtf8());
        m_qemu = std::make_unique<FakeProgram>(m_bin.path(), "qemu-system-x86_64");
        QVERIFY(m_qemu->isValid());
    }
    void cleanup()
    {
        killProcessesBelow(m_bin.path());
        if (m_started > 0 && isRunning(quint32(m_started))) destroyProcess(quint32(std::exchange(m_started, 0)));
        QDir(QEMUEngine().devicesDirectory()).removeRecursively();
    }

    // A host may hand over no machine at all: each operation refuses it with its failure result.
    void noMachine()
    {
        QEMUEngine engine;
        LogCapture log;
        QCOMPARE(engine.startMachine(nullptr, QString()), int(QEMUMachine::StartFailed));
        QVERIFY(!engine.stopMachine(nullptr) && !engine.deleteMachine(nullptr) && !engine.saveSnapshot(nullptr, "s"));
        QCOMPARE(engine.factoryReset(nullptr), 2);
        QCOMPARE(log.lines(QtCriticalMsg), (QStringList{"[VMTools] Cannot start a machine that QEMU does not run",
                                                        "[VMTools] Failed to save snapshot s", "[VMTools] Cannot factory reset null machine"}));
        // Nor does a device that does not run save a snapshot; one in a folder that is not there is not busy.
        QVERIFY(!engine.saveSnapshot(newDevice(engine, "dev").get(), "t") && log.lines(QtCriticalMsg).last() == "[VMTools] Failed to save snapshot t" && !DeviceLock::isBusy(m_home.filePath("none/dev")));
    }

    // The host compares QEMU's version against these itself: without a setting the minimum is
    // 6.2.0 and the maximum the unbounded value, major -1 and all else 0.
    void versionBounds()
    {
        QEMUEngine engine;
        QCOMPARE(engine.minimumVersion(), (Version{6, 2, 0, Version::Release, 0}));
        QCOMPARE(engine.maximumVersion(), (Version{-1, 0, 0, Version::Release, 0}));
    }

    // Single-file operations: a missing file counts as removed; a folder is neither copied nor removed.
    void fileOperations()
    {
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("f"), "x") && QDir().mkpath(dir.filePath("folder/inner")));
        QEMUEngine engine;
        LogCapture log;
        QVERIFY(engine.copyFile(dir.filePath("f"), dir.filePath("g")) && fileContents(dir.filePath("g")) == "x");
        QVERIFY(!engine.copyFile(dir.filePath("folder"), dir.filePath("h")) && !QFile::exists(dir.filePath("h")));
        QVERIFY(engine.removeFile(dir.filePath("f")) && !QFile::exists(dir.filePath("f")) && engine.removeFile(dir.filePath("f")));
        QVERIFY(!engine.removeFile(dir.filePath("folder")) && QFileInfo::exists(dir.filePath("folder/inner")));
        QCOMPARE(log.lines(QtWarningMsg).filter("Failed to remove").size(), 1);
        // Disk work on a missing file is refused before qemu-img runs; here qemu-img is missing too, so the installation
        // check names it; a QEMU whose --version fails leaves no version.
        m_qemu->setRules({{"rules", QJsonArray{QJsonObject{{"stdout", "QEMU emulator version 9.9.9\n"}, {"exit", 1}}}}});
        QVERIFY(!engine.createOverlayDisk(dir.filePath("none"), dir.filePath("o")) && !engine.convertToQcow2(dir.filePath("none"), dir.filePath("c"))
                && !engine.resizeDisk(nullptr, dir.filePath("none"), 8) && !engine.resizeDisk(nullptr, dir.filePath("g"), 8) && engine.checkInstallation(true).code == 1 && engine.versionString().isEmpty());
        QCOMPARE(log.lines(QtCriticalMsg), (QStringList{"[VMTools] Failed to copy " + dir.filePath("folder") + " to " + dir.filePath("h") + " : Not a regular file",
                                                        "[VMTools] Backing disk file not found: " + dir.filePath("none"), "[VMTools] Disk file not found: " + dir.filePath("none"),
                                                        "[VMTools] Can't run " + m_bin.filePath("qemu-img"), "[VMTools] Failed to resize " + dir.filePath("g") + " . ",
                                                        "[VMTools] Return code: 1", "[VMTools] " + engine.qemuPath() + " --version failed."}));
    }

    // Renaming moves the folder and gives the device its new uuid; a taken name changes nothing.
    void applyMachineChange_data() { addCaseRows("engine/renames.json"); }
    void applyMachineChange()
    {
        QV_FETCH_CASE;
        const QString newName = c["newName"].toString();
        const bool ok = c["ok"].toBool();
        QEMUEngine engine;
        auto machine = newDevice(engine, "device");
        QVERIFY(machine && newDevice(engine, "other"));
        const QString oldUuid = machine->uuid();
        QCOMPARE(engine.applyMachineChange(machine.get(), newName, "uuid-2"), ok);
        const QString name = ok ? newName : QStringLiteral("device");
        QCOMPARE(machine->path(), engine.devicePath(name));
        QCOMPARE(QFileInfo::exists(engine.devicePath("device")), name == "device");
        const std::unique_ptr<VMToolsMachine> reloaded(engine.loadMachine(name));
        QVERIFY(reloaded);
        QCOMPARE(reloaded->uuid(), ok ? QStringLiteral("uuid-2") : oldUuid);
    }

    // Offsets go 0, 7, ... 693; a port that QEMU finds taken after the probe moves the start
    // once, to the next free offset; one that another start holds, in this process or in another
    // (its lock file), is passed, and so is one that a running device keeps.
    void portOffsetSearch()
    {
        QEMUEngine engine;
        auto first = newDevice(engine, "first"), second = newDevice(engine, "second");
        QVERIFY(first && second);
        const QJsonObject clash{{"match", QJsonArray()}, {"times", 1}, {"stderr", "Could not set up host forwarding rule 'tcp:127.0.0.1:6555-:5555'\n"}};
        m_qemu->setRules({{"calls", true}, {"rules", QJsonArray{clash, QJsonObject{{"match", QJsonArray()}, {"sleep_ms", 20000}}}}});
        LogCapture clashLog;
        QCOMPARE(engine.startMachine(second.get(), QString()), int(QEMUMachine::StartRunning));
        QCOMPARE(QEMUMachine(&engine, second->path()).portOffset(), quint16(7));
        QVERIFY2(clashLog.contains(QtWarningMsg, "[VMTools] Port offset 0 was taken meanwhile, starting again at offset 7"), qPrintable(clashLog.dump()));
        killProcessesBelow(m_bin.path());
        scriptQemu("Failed to get \"write\" lock\n", 0);  // any other failure is not tried again
        QCOMPARE(engine.startMachine(second.get(), QString()), int(QEMUMachine::StartSystemFileLocked));

        QLockFile otherProcess(engine.devicesDirectory().filePath(".port-offset-679.lock"));
        PortOffsetReservation otherStart(engine.devicesDirectory().absolutePath());
        QVERIFY(otherProcess.tryLock() && otherStart.tryHold(686));
        QList<std::shared_ptr<QTcpServer>> taken;
        for (int offset = 0; offset < 679; offset += 7) {
            taken << std::make_shared<QTcpServer>();
            QVERIFY(taken.last()->listen(QHostAddress::Any, quint16(6555 + offset)));
        }
        scriptQemu(QString(), 20000);
        bool quick = true;  // a quick boot asked for, which QEMU answers with a cold boot
        first->setHasSnapshot(true);
        QCOMPARE(engine.startMachineWithSnapshotPolicy(first.get(), quick), int(QEMUMachine::StartRunning));
        QCOMPARE(QEMUMachine(&engine, first->path()).portOffset(), quint16(693));
        QVERIFY(!quick && m_qemu->calls().value(3).contains("hostfwd=tcp:127.0.0.1:7248-:5555,") && !m_qemu->calls().value(3).contains("-loadvm"));
        QList<int> progress;
        qDeleteAll(engine.listMachines([&](int done, int total) { progress << done << total; }));
        QCOMPARE((QList<int>{engine.findPortOffset(), int(progress.size())} + progress), (QList<int>{-1, 4, 1, 2, 2, 2}));

        LogCapture log;
        QCOMPARE(engine.startMachine(second.get(), QString()), int(QEMUMachine::StartFailed));
        QCOMPARE(log.lines(QtCriticalMsg), QStringList{"[VMTools] Failed to determine a port offset"});
        QCOMPARE(engine.startMachine(first.get(), QString()), int(QEMUMachine::StartRunning));
        QCOMPARE(m_qemu->calls().size(), 4);  // neither start above launched QEMU
    }

    // QMP's socket: in the device folder, or in a private runtime folder when that path is too
    // long for a socket address (107 bytes), under a name of its own per device; none over TCP.
    void qmpSocket_data() { addCaseRows("engine/qmpsockets.json"); }
    void qmpSocket()
    {
        QV_FETCH_CASE;
        const QString where = c["where"].toString();
        QTemporaryDir runtime;
        qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
        settings()->userSettings()->setValue("virtual_devices.qmp_over_tcp", c["overTcp"].toBool());
        QEMUEngine engine;
        const QString path = engine.devicePath(QString(c["nameLength"].toInt(), 'n')), socket = engine.qmpSocketPath(path);
        QCOMPARE(engine.qmpSocketPath(path), socket);
        const QString folder = runtime.path() + "/quorvel-qmp";
        QCOMPARE(QFileInfo(socket).path(), where == "device" ? path : where == "runtime" ? folder : "");
        QVERIFY(QFile::encodeName(socket).size() <= 107 && (socket.isEmpty() || engine.qmpSocketPath(path + "x") != socket));
        QVERIFY(where != "runtime" || QFile::permissions(folder) == (QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadUser | QFile::WriteUser | QFile::ExeUser));
        settings()->userSettings()->setValue("virtual_devices.qmp_over_tcp", false);
    }

    // "stderr": what the stand-in says; "sleepMs": how long it lives; "critical": the first lines at that level.
    void startResults_data() { addCaseRows("engine/starts.json"); }
    void startResults()
    {
        QV_FETCH_CASE;
        const QString errorText = c["stderr"].toString();
        const int sleepMs = c["sleepMs"].toInt(), expected = c["result"].toInt();
        const QStringList critical = c["critical"].toVariant().toStringList();
        scriptQemu(errorText, sleepMs);
        QEMUEngine engine;
        auto machine = newDevice(engine, "dev");
        QVERIFY(machine);
        LogCapture log;
        QCOMPARE(machine->start(engine.qemuPath(), {"-a", "b c"}, 14), expected);
        QCOMPARE(m_qemu->calls().last(), QStringLiteral("-a\tb c"));
        QVERIFY2(log.lines(QtCriticalMsg).mid(0, critical.size()) == critical, qPrintable(log.dump()));
        QCOMPARE(QString::fromUtf8(fileContents(machine->logFilePath())), errorText);
        QCOMPARE(machine->status(), sleepMs ? 1 : 2);
        QCOMPARE(QEMUMachine(&engine, machine->path()).qmpPort(), sleepMs ? 23555 + 14 : 23555 - 1);
        QCOMPARE(machine->adbSerial(), expected == 1 ? "127.0.0.1:6569" : "127.0.0.1:6554");
    }

    // Who may own a lock; stop removes any other lock and leaves its process alone. "copy": sleep as bin/<copy>/qemu-system-x86_64.
    void lockOwner_data() { addCaseRows("engine/locks.json"); }
    void lockOwner()
    {
        QV_FETCH_CASE;
        const QString copy = c["copy"].toString(), program = QDir::cleanPath(m_bin.path() + "/" + copy + "/qemu-system-x86_64");
        QVERIFY(copy.isEmpty() || (QDir().mkpath(m_bin.filePath(copy)) && QFile::copy(QStandardPaths::findExecutable("sleep"), program)
                                   && QFile::setPermissions(program, QFile::ExeOwner | (c["readable"].toBool() ? QFile::ReadOwner : QFile::ExeOwner))));
        scriptQemu(QString(), 20000);
        QEMUEngine engine;
        auto machine = newDevice(engine, "dev");
        QVERIFY(machine && QProcess::startDetached(program, {"20"}, QString(), &m_started) && machine->writeLockFile(7, m_started));
        QFile lock(machine->lockFilePath());
        QVERIFY(lock.open(QIODevice::ReadWrite) && lock.setFileTime(QDateTime::currentDateTime().addSecs(-c["lockAgeS"].toInt()), QFileDevice::FileModificationTime));
        QCOMPARE(machine->status(), c["running"].toBool() ? 1 : 2);
        QCOMPARE(engine.stopMachine(machine.get()), c["running"].toBool());
        QTRY_VERIFY_WITH_TIMEOUT(!lock.exists() && isRunning(quint32(m_started)) != c["running"].toBool(), 5000);
    }
};

QTEST_GUILESS_MAIN(tst_QemuEngine)
#include "tst_qemuengine.moc"
