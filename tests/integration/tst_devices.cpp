#include "commandrunner.h"
#include "devicelock.h"
#include "fakeprogram.h"
#include "fixtures.h"
#include "hostdirectories.h"
#include "logcapture.h"
#include "multisettings.h"
#include "processutils.h"
#include "qemuclient.h"
#include "qemucommandline.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testenv.h"
#include "testfiles.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>
#include <memory>

// Devices made from a real OVA by the real qemu-img and run by the real QEMU, both reached
// through stand-ins: the qemu-img one records every call and fails the chosen one. The case
// tables are tests/data/integration/devices.json; calls there read $REF for the reference
// folder and $DEV for the devices folder.
class tst_Devices : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
    QString m_img, m_ref, m_devs;
    OsImage m_image;
    std::unique_ptr<FakeProgram> m_fake;
    std::unique_ptr<QEMUEngine> m_engine;
    QProcess m_holder;
    qint64 m_pid = 0;

    static void rows(const char *table)
    {
        QTest::addColumn<QJsonObject>("row");
        const QJsonObject tables = jsonFileObject(QV_TEST_DATA_DIR "/integration/devices.json");
        for (const QJsonValue &row : tables.value(table).toArray())
            QTest::newRow(qPrintable(row["name"].toString())) << row.toObject();
    }
    void script(const QJsonArray &rules = {})
    {
        QFile::remove(m_fake->path() + ".calls");
        m_fake->setRules({{"passthrough", m_img}, {"calls", true}, {"rules", rules}});
    }
    QString calls() const { return m_fake->calls().join('\n').replace('\t', ' ').replace(m_ref, "$REF").replace(m_devs, "$DEV"); }
    QString tool(const QStringList &arguments)
    {
        QProcess process;
        process.start(m_img, arguments);
        return process.waitForFinished(30000) ? QString::fromUtf8(process.readAllStandardOutput()) : QString();
    }
    double virtualSize(const QString &disk) { return QJsonDocument::fromJson(tool({"info", "-U", "--output=json", disk}).toUtf8())["virtual-size"].toDouble(); }
    std::unique_ptr<QEMUMachine> load(const QString &name) { return std::unique_ptr<QEMUMachine>(static_cast<QEMUMachine *>(m_engine->loadMachine(name))); }

private slots:
    void initTestCase()
    {
        QV_REQUIRE_PROGRAM(img, "qemu-img");
        QV_REQUIRE_PROGRAM(tar, "tar");
        QV_REQUIRE_PROGRAM(qemu, "qemu-system-x86_64");
        m_img = img;
        QVERIFY(m_home.isValid());
        qputenv("QV_HOME", m_home.path().toUtf8());
        qputenv("QV_QEMU_BIN_DIR", m_home.filePath("bin").toUtf8());
        m_fake = std::make_unique<FakeProgram>(m_home.filePath("bin"), "qemu-img");
        // A link, so the running QEMU is the engine's program itself.
        QString ova;
        QVERIFY(m_fake->isValid() && QFile::link(qemu, m_home.filePath("bin/qemu-system-x86_64")) && makeOva(m_img, m_home.path(), &ova));
        m_image = testImage(QUrl::fromLocalFile(ova).toString());
        m_engine = std::make_unique<QEMUEngine>();
        DeviceLock::setWaitForTesting(500);
        m_ref = QDir::cleanPath(systemImageDirectory(m_image.osVersion, m_image.imageVersion));
        m_devs = m_engine->devicesDirectory().absolutePath();
    }
    void init()
    {
        script();
        setDefaultCommandTimeoutForTesting(0);
        // Failed conversions take the reference disks with them; later rows need them back.
        for (const QString &vmdk : {m_ref + "/system.vmdk", m_ref + "/data.vmdk"})
            if (QFile::exists(vmdk) && QFileInfo(QString(vmdk).replace(".vmdk", ".qcow2")).size() == 0)
                QVERIFY((QFile::remove(QString(vmdk).replace(".vmdk", ".qcow2")), runTool(m_img, {"convert", "-O", "qcow2", vmdk, QString(vmdk).replace(".vmdk", ".qcow2")})));
    }
    void cleanup()
    {
        // Whatever happened, no QEMU of this test outlives it.
        killProcessesBelow(m_home.filePath("bin"));
        m_holder.kill();
        m_holder.waitForFinished(5000);
    }

    void create_data() { rows("create"); }
    void create()
    {
        QFETCH(const QJsonObject, row);
        // "leftover": a file that a create cut short left, below the device's folder ("." is the folder itself, "link" a link
        // there to an empty folder elsewhere); "deploy": the deployment step alone; "options": made by createMachine, which applies them.
        const QString name = row["device"].toString(), dev = m_devs + "/" + name, leftover = row["leftover"].toString();
        OsImage image = m_image;
        image.buildDate = row["noBuildDate"].toBool() ? QDateTime() : image.buildDate;
        QVERIFY(leftover.isEmpty() || (leftover == "link" ? QDir().mkpath(m_home.filePath("elsewhere")) && QFile::link(m_home.filePath("elsewhere"), dev)
                                                          : writeFile(QDir::cleanPath(dev + "/" + leftover), "cut short")));
        const auto before = treeHashes(m_devs);
        const HwProfile profile = testProfile(256, 1, row["sdCard"].toInt());
        const QVariantMap options = row["options"].toObject().toVariantMap();
        LogCapture log;
        const std::unique_ptr<VMToolsMachine> made(row.contains("options") ? m_engine->createMachine(name, image, profile, options) : nullptr);
        const int result = row.contains("options") ? int(!made) : !row["deploy"].toBool() ? m_engine->createDevice(name, image, profile)
                         : m_engine->deployDevice(name, QUrl(image.imageUri).toLocalFile(), profile.sdCardSize, image.osVersion, image.imageVersion);
        QCOMPARE(result, row["result"].toInt());
        QCOMPARE(calls(), row["calls"].toVariant().toStringList().join('\n'));
        QCOMPARE(log.lines(QtCriticalMsg), row["critical"].toVariant().toStringList().replaceInStrings("$DEV", m_devs));
        if (result != 0) {
            QCOMPARE(treeHashes(m_devs), before);
            return;
        }
        QCOMPARE(fileHash(dev + "/data.qcow2"), fileHash(m_ref + "/data.qcow2"));
        QCOMPARE(virtualSize(dev + "/sdcard.qcow2"), row["sdCard"].toInt() * 1048576.0);
        QCOMPARE(load(name)->osImage().uuid, m_image.uuid);
        for (auto it = options.cbegin(); it != options.cend(); ++it)
            QCOMPARE(load(name)->configurationValue(it.key()).toString(), it.value().toString());
    }

    void diskWork()
    {
        auto keep = load("keep");
        const QString dev = m_devs + "/keep";
        // A lost system disk is made again on the reference disk, which needs no reference data disk.
        QVERIFY(QFile::remove(dev + "/system.qcow2") && QFile::rename(m_ref + "/data.qcow2", m_home.filePath("aside")) && keep->createSystemDisk(m_image) && QFile::rename(m_home.filePath("aside"), m_ref + "/data.qcow2"));
        QCOMPARE(calls(), "create -f qcow2 -b $REF/system.qcow2 -F qcow2 $DEV/keep/system.qcow2");
        script();
        // A reset brings back every file as made, whatever happened to the two disks.
        const auto fresh = treeHashes(dev);
        QVERIFY(writeFile(dev + "/data.qcow2", "dirty") && writeFile(dev + "/system.qcow2", "dirty"));
        QCOMPARE(m_engine->factoryReset(keep.get()), 0);
        QCOMPARE(treeHashes(dev), fresh);
        QCOMPARE(calls(), "create -f qcow2 -b $REF/system.qcow2 -F qcow2 $DEV/keep/system.qcow2.partial");

        // A failed card gives the tool's own code, or 1 when the tool said 0 but made nothing,
        // and leaves no file.
        script({QJsonObject{{"match", QJsonArray{"create", "sdcard"}}, {"exit", 3}, {"create_file_arg", -2}, {"times", 1}},
                QJsonObject{{"match", QJsonArray{"create", "sdcard"}}, {"exit", 0}}});
        QVERIFY(QDir().mkpath(m_home.filePath("card")));
        QCOMPARE((QList<int>{m_engine->createSdCardDisk(m_home.filePath("card"), 8), m_engine->createSdCardDisk(m_home.filePath("card"), 8)}),
                 (QList<int>{3, 1}));
        QVERIFY(!QFile::exists(m_home.filePath("card/sdcard.qcow2")));
        script();
        QVERIFY(keep->setSdCardSize(64));
        QCOMPARE(calls(), "resize $DEV/keep/sdcard.qcow2 64M");
        QCOMPARE(virtualSize(dev + "/sdcard.qcow2"), 64 * 1048576.0);

        // Only tags of letters, digits and '_' are listed; the system disk decides a deletion.
        for (const char *tag : {"booted", "odd-tag"})
            QVERIFY(runTool(m_img, {"snapshot", "-c", tag, dev + "/system.qcow2"}));
        QVERIFY(runTool(m_img, {"snapshot", "-c", "booted", dev + "/sdcard.qcow2"}) && writeFile(keep->snapshotFilePath(), "state"));
        // A system disk that refuses the deletion (held, damaged) keeps the snapshot whole.
        script({QJsonObject{{"match", QJsonArray{"snapshot -d "}}, {"exit", 1}}});
        QVERIFY(!m_engine->deleteSnapshot(keep.get(), "booted") && QFile::exists(keep->snapshotFilePath()));
        QVERIFY(!calls().contains("data.qcow2"));
        script();
        QCOMPARE(m_engine->listSnapshots(keep.get()), QStringList{"booted"});
        QVERIFY(m_engine->deleteSnapshot(keep.get(), "booted") && m_engine->deleteSnapshot(keep.get(), "absent"));
        QCOMPARE(calls(), "snapshot -l $DEV/keep/system.qcow2\nsnapshot -l $DEV/keep/system.qcow2\nsnapshot -d booted $DEV/keep/system.qcow2\n"
                          "snapshot -d booted $DEV/keep/data.qcow2\nsnapshot -d booted $DEV/keep/sdcard.qcow2\nsnapshot -l $DEV/keep/system.qcow2");
        const QString left = tool({"snapshot", "-l", dev + "/system.qcow2"});
        QVERIFY2(left.contains("odd-tag") && !left.contains("booted"), qPrintable(left));
        QCOMPARE(tool({"snapshot", "-l", dev + "/sdcard.qcow2"}), QString());
        QVERIFY(!QFile::exists(keep->snapshotFilePath()));
    }

    void clone()
    {
        // What an earlier clone cut short left in both places does not stand in the way.
        QVERIFY(writeFile(m_devs + "/copy/leftover", "x") && writeFile(m_devs + "/.copy.partial/leftover", "x"));
        auto source = load("keep");
        std::unique_ptr<VMToolsMachine> copy(m_engine->cloneMachine(source.get(), "copy"));
        QVERIFY(!QFileInfo::exists(m_devs + "/.copy.partial"));
        QVERIFY(copy && !QUuid(copy->uuid()).isNull() && copy->uuid() != source->uuid());
        // The same files, but for the new uuid in the description.
        const QString json = "/shared/config/device.json";
        QByteArray text = fileContents(m_devs + "/copy" + json);
        QCOMPARE(QJsonDocument::fromJson(text.replace(copy->uuid().toUtf8(), source->uuid().toUtf8())), QJsonDocument::fromJson(fileContents(m_devs + "/keep" + json)));
        auto expected = treeHashes(m_devs + "/keep");
        expected[json.mid(1)] = fileHash(m_devs + "/copy" + json);
        QCOMPARE(treeHashes(m_devs + "/copy"), expected);
        const auto before = treeHashes(m_devs);
        LogCapture log;
        QVERIFY(!m_engine->cloneMachine(source.get(), "bare"));
        QVERIFY(log.contains(QtCriticalMsg, "[VMTools] Can't clone to already existing device bare"));
        QCOMPARE(treeHashes(m_devs), before);
    }

    void faults_data() { rows("faults"); }
    void faults()
    {
        QFETCH(const QJsonObject, row);
        // "moved": a reference file put aside, a folder, a link to it or a FIFO "left" in its place; "gone": a reference disk converted
        // again, whose half-made copy must not stay; "blocked": a folder where a reset puts a disk aside. No "upgraded": never said.
        const QString moved = row["moved"].toString(), gone = row["gone"].toString(), left = row["left"].toString(), blocked = row["blocked"].toString();
        const int sleepMs = row["sleepMs"].toInt();
        auto keep = load("keep");
        QVERIFY(keep->setConfigurationValue("device_upgraded_at_least_once", row["upgraded"].toVariant()) && (blocked.isEmpty() || QDir(keep->path()).mkdir(blocked)));
        const QString aside = m_home.filePath("aside"), reference = m_ref + "/" + moved;
        QVERIFY(moved.isEmpty() || (QFile::rename(reference, aside) && (left.isEmpty() || (left == "folder" ? QDir().mkpath(reference)
                                    : left == "link" ? QFile::link(aside, reference) : ::mkfifo(qPrintable(reference), 0600) == 0))));
        QJsonObject rule{{"match", row["match"]}, {"exit", sleepMs ? 0 : 1}, {"stderr", "injected"}, {"sleep_ms", sleepMs}};
        if (!gone.isEmpty())
            rule["create_file_arg"] = -1;  // as the real tool does, a failed conversion leaves its target
        script(row.contains("match") ? QJsonArray{rule} : QJsonArray());
        QVERIFY(gone.isEmpty() || QFile::remove(m_ref + "/" + gone));
        setDefaultCommandTimeoutForTesting(sleepMs / 5);
        const auto before = treeHashes(m_devs);
        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        const int result = row["reset"].toBool() ? m_engine->factoryReset(keep.get()) : m_engine->createDevice("new", m_image, testProfile(256, 1, 8));
        QVERIFY(timer.elapsed() < 4000);
        QVERIFY(moved.isEmpty() || ((QFile::remove(reference) || QDir(reference).removeRecursively()) && QFile::rename(aside, reference)));
        QVERIFY(blocked.isEmpty() || QDir(keep->path()).rmdir(blocked));
        QCOMPARE(result, row["result"].toInt());
        QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] " + row["message"].toString().replace("$REF", m_ref).replace("$DEV", m_devs)), qPrintable(log.dump()));
        QCOMPARE(treeHashes(m_devs), before);
        QVERIFY(!QFileInfo::exists(m_devs + "/new") && (gone.isEmpty() || !QFile::exists(m_ref + "/" + gone)));
    }

    void interruptedReset_data() { rows("interruptedReset"); }
    void interruptedReset()
    {
        // The files a reset killed at some step leaves; the next load ends it one way or the other.
        QFETCH(const QJsonObject, row);
        const QString dev = m_devs + "/keep";
        const auto made = treeHashes(dev);
        for (const QJsonValue &move : row["moved"].toArray())
            QVERIFY(QFile::rename(dev + "/" + move[0].toString(), dev + "/" + move[1].toString()));
        for (const QJsonValue &file : row["written"].toArray())
            QVERIFY(writeFile(dev + "/" + file.toString(), "new"));
        LogCapture log;
        QVERIFY(load("keep") && log.lines(QtCriticalMsg).isEmpty());
        auto expected = made;
        if (row["ends"] == "new")
            expected["system.qcow2"] = expected["data.qcow2"] = QCryptographicHash::hash("new", QCryptographicHash::Sha1).toHex();
        QCOMPARE(treeHashes(dev), expected);
        QCOMPARE(m_engine->factoryReset(load("keep").get()), 0);
    }

    void busy_data() { rows("busy"); }
    void busy()
    {
        // Another operation on the device holds it, or deleted it while this one waited:
        // each operation gives up and says which.
        QFETCH(const QJsonObject, row);
        const QString op = row["op"].toString();
        const bool gone = row["gone"].toBool();
        auto keep = load("keep");
        DeviceLock other(keep->path());
        QVERIFY(gone || other.tryAcquire());
        const auto before = treeHashes(m_devs);
        QVERIFY(!gone || QDir().rename(keep->path(), m_devs + "/away"));
        LogCapture log;
        const int result = op == "start" ? m_engine->startMachine(keep.get(), QString())
                         : op == "stop" ? int(m_engine->stopMachine(keep.get()))
                         : op == "create" ? m_engine->createDevice("keep", m_image, testProfile())
                         : op == "save snapshot" ? int(m_engine->saveSnapshot(keep.get(), "s"))
                         : op == "delete snapshot" ? int(m_engine->deleteSnapshot(keep.get(), "s"))
                         : op == "delete" ? int(m_engine->deleteMachine(keep.get()))
                                          : int(std::unique_ptr<VMToolsMachine>(m_engine->cloneMachine(keep.get(), "copy2")) != nullptr);
        QVERIFY(!gone || QDir().rename(m_devs + "/away", keep->path()));
        QCOMPARE((QList<int>{result, DeviceLock::isBusy(keep->path())}), (QList<int>{row["result"].toInt(), !gone}));
        QVERIFY2(log.contains(QtCriticalMsg, gone ? "[VMTools] Device keep no longer exists" : "[VMTools] Device keep is busy with another operation"), qPrintable(log.dump()));
        QCOMPARE(treeHashes(m_devs), before);
    }

    void names_data() { rows("names"); }
    void names()
    {
        // A name that leaves the devices folder is refused before anything is touched.
        QFETCH(const QJsonObject, row);
        const QString name = row["device"].toString().replace("$HOME", m_home.path()), op = row["op"].toString();
        QVERIFY(QDir().mkpath(m_home.filePath("victim")) && writeFile(m_home.filePath("victim/file"), "kept"));
        auto keep = load("keep");
        const auto before = treeHashes(m_home.path());
        LogCapture log;
        QEMUMachine outside(m_engine.get(), name);
        const int result = op == "create" ? m_engine->createDevice(name, m_image, testProfile())
                         : op == "deploy" ? m_engine->deployDevice(name, QUrl(m_image.imageUri).toLocalFile(), 0, m_image.osVersion, m_image.imageVersion)
                         : op == "clone"  ? int(std::unique_ptr<VMToolsMachine>(m_engine->cloneMachine(keep.get(), name)) != nullptr)
                         : op == "rename" ? int(m_engine->applyMachineChange(keep.get(), name, keep->uuid()))
                         : op == "delete" ? int(m_engine->deleteMachine(&outside))
                                          : int(std::unique_ptr<VMToolsMachine>(m_engine->loadMachine(name)) != nullptr);
        QCOMPARE(result, int(op == "create" || op == "deploy"));  // their failure is 1, the others' is false
        const QString message = row["message"].toString("Invalid device name: %1").arg(name).replace("$DEVS", m_devs);
        QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] " + message), qPrintable(log.dump()));
        QCOMPARE(treeHashes(m_home.path()), before);
    }

    void hostileImages_data() { rows("hostileImages"); }
    void hostileImages()
    {
        // An archive whose disk would make qemu-img read other files, or another archive that
        // claims an image already prepared, is refused before qemu-img opens it.
        QFETCH(const QJsonObject, row);
        const QString work = m_home.filePath("hostile/" + row["name"].toString()), disk = work + "/system.vmdk";
        const auto fill = [&](QString text) { return text.replace("$SECRET", m_home.filePath("secret")).replace("$DISK", disk).replace("$WORK", work); };
        QVERIFY(writeFile(m_home.filePath("secret"), "host secret") && QDir().mkpath(work));
        for (const char *part : {"device.ovf", "system.vmdk", "data.vmdk", "sdcard.vmdk"})
            QVERIFY(QFile::copy(m_home.filePath(QString("ova-parts/") + part), work + "/" + part));
        if (row.contains("make"))
            QVERIFY(QFile::remove(disk) && runTool(m_img, fill(row["make"].toVariant().toStringList().join('\t')).split('\t')));
        QVERIFY(!row.contains("text") || (QFile::remove(disk) && writeFile(disk, fill(row["text"].toString()).toUtf8())));
        QVERIFY(!row.contains("fifo") || ::mkfifo(qPrintable(fill(row["fifo"].toString())), 0600) == 0);
        QVERIFY(runTool("tar", {"-cf", work + ".ova", "-C", work, "device.ovf", "system.vmdk", "data.vmdk", "sdcard.vmdk"}));
        const OsImage image = testImage(QUrl::fromLocalFile(work + ".ova").toString(), row["os"].toString());
        const QString reference = QDir::cleanPath(systemImageDirectory(image.osVersion, image.imageVersion));
        QVERIFY(!row["blocked"].toBool() || writeFile(QFileInfo(reference).path(), "not a folder"));
        LogCapture log;
        QCOMPARE(m_engine->createDevice("hostile", image, testProfile()), 1);
        QCOMPARE(log.lines(QtCriticalMsg).join('\n'), fill(row["critical"].toVariant().toStringList().join('\n')).replace("$REF", reference).replace("$OVA", work + ".ova"));
        QVERIFY(!QFileInfo::exists(m_devs + "/hostile") && !QFileInfo::exists(reference + "/system.qcow2.partial"));
        QVERIFY(row["os"] == "7.1.0" || !QFileInfo::exists(reference + "/system.qcow2"));
    }

    void startStop_data() { rows("startStop"); }
    void startStop()
    {
        QFETCH(const QJsonObject, row);
        const int offset = row["offset"].toInt(), result = row["result"].toInt();
        const QString message = row["message"].toString();
        QTcpServer foreign;
        QTRY_VERIFY_WITH_TIMEOUT(!row.contains("takenPort") || foreign.isListening() || foreign.listen(QHostAddress::Any, quint16(row["takenPort"].toInt())), 5000);
        const QJsonObject rowSettings = row["settings"].toObject();
        for (auto it = rowSettings.begin(); it != rowSettings.end(); ++it)
            settings()->userSettings()->setValue(it.key(), it.value().toVariant());
        auto machine = load("keep");
        const QString system = machine->path() + "/system.qcow2";
        if (row["diskHeld"].toBool()) {
            // QEMU answers on its monitor only once its drives are open and locked: a qemu-img
            // probe before that races the holder for the image's lock and may make it give up.
            m_holder.start(m_engine->qemuPath(), {"-nodefaults", "-display", "none", "-S", "-m", "64M", "-qmp", "stdio", "-drive", "file=" + system + ",format=qcow2"});
            m_holder.write("{\"execute\": \"qmp_capabilities\"}\n");
            QByteArray answer;
            for (const QDeadlineTimer deadline(30000); !answer.contains("\"return\"") && m_holder.waitForReadyRead(int(deadline.remainingTime()));)
                answer += m_holder.readAllStandardOutput();
            const CommandResult probe = runCommand(m_img, {"info", system});
            QVERIFY2(probe.error.contains("Failed to get") && probe.error.contains("lock"), qPrintable(answer + probe.error + m_holder.readAllStandardError()));
        }
        LogCapture log;
        const mode_t umask = ::umask(0);  // QEMU's socket open to all: only the folder guards it
        const int started = m_engine->startMachine(machine.get(), QString());
        ::umask(umask);
        QVERIFY2(started == result, qPrintable(QString("start gave %1; holder %2 %3; qemu.log: %4; log:\n%5").arg(started).arg(m_holder.state() == QProcess::Running ? "running" : "not running",
                 m_holder.readAllStandardError(), fileContents(machine->logFilePath()), log.dump())));
        m_pid = QSettings(machine->lockFilePath(), QSettings::IniFormat).value("pid").toLongLong();
        if (result != QEMUMachine::StartRunning) {
            QVERIFY2(log.contains(QtCriticalMsg, message), qPrintable(log.dump()));
            return;
        }
        QCOMPARE(processNameByPid(quint32(m_pid)), QString("qemu-system-x86_64"));
        QCOMPARE(machine->adbSerial(), QString("127.0.0.1:%1").arg(6555 + offset));
        // QMP on the device's own socket, in a folder only its owner may enter (the setting
        // puts it back on the port); another account cannot reach it even when the folders
        // above are open.
        const QmpEndpoint qmp = row["settings"].toObject()["virtual_devices.qmp_over_tcp"].toBool()
                ? QmpEndpoint{quint16(23555 + offset), {}} : QmpEndpoint{0, machine->path() + "/qmp.sock"};
        QVERIFY2(QEMUClient(qmp).init(), qPrintable(log.dump()));
        struct stat folder = {};
        QVERIFY(::stat(QFile::encodeName(machine->path()).constData(), &folder) == 0 && (!qmp.isLocalSocket() || (folder.st_mode & 0777) == 0700));
        const bool canSwitch = ::geteuid() == 0 && !QStandardPaths::findExecutable("setpriv").isEmpty();
        for (QDir up(m_devs); canSwitch && up.absolutePath().startsWith(m_home.path()); up.cdUp())
            QFile::setPermissions(up.absolutePath(), QFile::permissions(up.absolutePath()) | QFile::ExeOther);
        QVERIFY(!canSwitch || !qmp.isLocalSocket() || runCommand("setpriv", {"--reuid=65534", "--regid=65534", "--clear-groups", "/usr/bin/python3", "-c", "import socket,sys\ntry: socket.socket(socket.AF_UNIX).connect(sys.argv[1])\nexcept PermissionError: print('denied')", qmp.socketPath}).output == "denied\n");
        // Where the forwards listen, as this namespace's socket table has it: each on the row's address only.
        QStringList expected, forwards;
        for (const QemuCommandLine::PortForward &forward : QemuCommandLine::portForwards())
            expected << QString("%1:%2").arg(row["listen"].toString("127.0.0.1")).arg(forward.hostBase + offset);
        for (const QString &line : runCommand("ss", {"-ltnH"}).output.split('\n', Qt::SkipEmptyParts)) {
            const QString local = line.simplified().section(' ', 3, 3);
            if (std::any_of(expected.cbegin(), expected.cend(), [&](const QString &e) { return e.section(':', -1) == local.section(':', -1); }))
                forwards << local;
        }
        QCOMPARE((forwards.sort(), forwards), (expected.sort(), expected));
        // Already running: nothing new is launched.
        QCOMPARE(m_engine->startMachine(machine.get(), QString()), result);
        QCOMPARE(QSettings(machine->lockFilePath(), QSettings::IniFormat).value("pid").toLongLong(), m_pid);
        // device.json lies in the folder QEMU holds as a FAT drive: no writes while it runs.
        QVERIFY(!machine->save() && log.contains(QtCriticalMsg, "[VMTools] Writing in shared folder while QEMU is running is forbidden"));
        // Whatever its caller saw before, a device that runs is neither deleted, reset nor cloned.
        QVERIFY(!m_engine->deleteMachine(machine.get()) && m_engine->factoryReset(machine.get()) == 2);
        QVERIFY(!std::unique_ptr<VMToolsMachine>(m_engine->cloneMachine(machine.get(), "copy3")) && QFile::exists(system));
        QVERIFY(!row["frozen"].toBool() || ::kill(pid_t(m_pid), SIGSTOP) == 0);
        QVERIFY(m_engine->stopMachine(machine.get()));
        QCOMPARE(log.lines(QtCriticalMsg).filter("gracefully").join("\n"), message);  // the client may add its own lines
        QVERIFY(!QFile::exists(machine->lockFilePath()));
        QTRY_VERIFY_WITH_TIMEOUT(!isRunning(quint32(m_pid)), 5000);
        QCOMPARE(machine->status(), int(VMToolsMachine::StatePoweredOff));
        if (!canSwitch && qmp.isLocalSocket())
            QSKIP("Not tried as another account: that needs root and setpriv");
    }
};

QTEST_GUILESS_MAIN(tst_Devices)
#include "tst_devices.moc"
