#include "hwprofile.h"
#include "logcapture.h"
#include "osimage.h"
#include "processutils.h"
#include "qemuclient.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

#include <memory>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/types.h>
#endif

// Real QEMU runs: the engine starts devices with blank disks, finds their ports, and
// stops them gracefully or by force.
class tst_Lifecycle : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void startAndStop();
    void portOffsets();
    void forcedStop();
    void systemDiskHeldByAnotherQemu();

private:
    std::unique_ptr<QEMUMachine> makeDevice(const QString &name);
    qint64 lockedPid(const QEMUMachine &machine) const;
    int lockedOffset(const QEMUMachine &machine) const;
    void track(const QEMUMachine &machine) { m_pids.append(lockedPid(machine)); }

    QTemporaryDir m_home;
    QString m_img;
    std::unique_ptr<QEMUEngine> m_engine;
    QList<qint64> m_pids;
};

void tst_Lifecycle::initTestCase()
{
    QV_REQUIRE_PROGRAM(qemu, "qemu-system-x86_64");
    QV_REQUIRE_PROGRAM(img, "qemu-img");
    m_img = img;
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", m_home.path().toUtf8());
    qputenv("QV_QEMU_BIN_DIR", QFileInfo(qemu).absolutePath().toUtf8());
    qunsetenv("QV_TRIGGER_ERROR");
    qunsetenv("QV_QEMU_START_ARGS");
    qunsetenv("QV_OSIMAGE_ARCH_LIST");
    qunsetenv("QV_HYPERVISOR_WINDOW");
}

void tst_Lifecycle::init()
{
    m_engine = std::make_unique<QEMUEngine>();
    QDir devices = m_engine->devicesDirectory();
    devices.removeRecursively();
    QVERIFY(QDir().mkpath(devices.absolutePath()));
}

void tst_Lifecycle::cleanup()
{
    // Whatever happened, no QEMU of this test outlives it.
    for (qint64 pid : qAsConst(m_pids)) {
        if (pid > 0 && isRunning(quint32(pid)))
            destroyProcess(quint32(pid));
    }
    m_pids.clear();
    m_engine.reset();
}

std::unique_ptr<QEMUMachine> tst_Lifecycle::makeDevice(const QString &name)
{
    const QString path = m_engine->devicePath(name);
    QDir().mkpath(path);
    HwProfile profile;
    profile.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    profile.ramSize = 256;
    profile.cpuCount = 1;
    OsImage image;
    image.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    image.name = QStringLiteral("blank");
    image.buildDate = QDateTime(QDate(2024, 1, 2), QTime(3, 4), Qt::UTC);
    image.osVersion = parseVersion(QStringLiteral("7.1.0"));
    image.imageVersion = parseVersion(QStringLiteral("1.0.0"));
    image.arch = QStringLiteral("x86_64");
    {
        QEMUMachine fresh(m_engine.get(), path, profile, image);
        if (!fresh.save())
            return {};
    }
    for (const auto &disk : {qMakePair(QStringLiteral("system.qcow2"), QStringLiteral("64M")),
                             qMakePair(QStringLiteral("data.qcow2"), QStringLiteral("32M"))}) {
        if (QProcess::execute(m_img, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                                      QStringLiteral("qcow2"), path + QLatin1Char('/') + disk.first, disk.second})
            != 0)
            return {};
    }
    return std::unique_ptr<QEMUMachine>(static_cast<QEMUMachine *>(m_engine->loadMachine(name)));
}

qint64 tst_Lifecycle::lockedPid(const QEMUMachine &machine) const
{
    return QSettings(machine.lockFilePath(), QSettings::IniFormat).value(QStringLiteral("pid")).toLongLong();
}

int tst_Lifecycle::lockedOffset(const QEMUMachine &machine) const
{
    return QSettings(machine.lockFilePath(), QSettings::IniFormat).value(QStringLiteral("offset"), -1).toInt();
}

void tst_Lifecycle::startAndStop()
{
    auto machine = makeDevice(QStringLiteral("one"));
    QVERIFY(machine);
    LogCapture log;
    QCOMPARE(m_engine->startMachine(machine.get(), QString()), int(QEMUMachine::StartRunning));
    track(*machine);
    const qint64 pid = lockedPid(*machine);
    QVERIFY(pid > 0);
    const int offset = lockedOffset(*machine);
    QCOMPARE(int(machine->portOffset()), offset);
    QVERIFY2(offset >= 0 && offset % 7 == 0, qPrintable(log.dump()));
    QCOMPARE(processNameByPid(quint32(pid)), QStringLiteral("qemu-system-x86_64"));

    {
        QEMUClient client(quint16(23555 + offset));
        QVERIFY2(client.init(), qPrintable(log.dump()));
    }
    QTcpSocket adb;
    adb.connectToHost(QStringLiteral("127.0.0.1"), machine->adbPort());
    QVERIFY(adb.waitForConnected(5000));
    adb.abort();

    // Already running: nothing new is launched.
    QCOMPARE(m_engine->startMachine(machine.get(), QString()), int(QEMUMachine::StartRunning));
    QCOMPARE(lockedPid(*machine), pid);

    log.clear();
    QVERIFY(m_engine->stopMachine(machine.get()));
    QVERIFY2(!log.contains(QtCriticalMsg, "[VMTools] Failed to quit VM gracefully"), qPrintable(log.dump()));
    QVERIFY(!QFile::exists(machine->lockFilePath()));
    QTRY_VERIFY_WITH_TIMEOUT(!isRunning(quint32(pid)), 5000);
    QCOMPARE(machine->status(), int(VMToolsMachine::StatePoweredOff));
}

void tst_Lifecycle::portOffsets()
{
    auto first = makeDevice(QStringLiteral("first"));
    auto second = makeDevice(QStringLiteral("second"));
    QVERIFY(first && second);
    if (m_engine->findPortOffset() != 0)
        QSKIP("the base ports are taken by another program");

    QCOMPARE(m_engine->startMachine(first.get(), QString()), int(QEMUMachine::StartRunning));
    track(*first);
    QCOMPARE(m_engine->startMachine(second.get(), QString()), int(QEMUMachine::StartRunning));
    track(*second);
    QCOMPARE(lockedOffset(*first), 0);
    QCOMPARE(lockedOffset(*second), 7);
    QCOMPARE(second->adbSerial(), QStringLiteral("127.0.0.1:6562"));
    QVERIFY(m_engine->stopMachine(first.get()));
    QVERIFY(m_engine->stopMachine(second.get()));

    // A foreign listener on the ADB port pushes the next start to the following offset.
    QTcpServer foreign;
    QVERIFY(foreign.listen(QHostAddress::Any, 6555));
    QCOMPARE(m_engine->startMachine(first.get(), QString()), int(QEMUMachine::StartRunning));
    track(*first);
    QCOMPARE(lockedOffset(*first), 7);
    QVERIFY(m_engine->stopMachine(first.get()));
}

void tst_Lifecycle::forcedStop()
{
#ifndef Q_OS_UNIX
    QSKIP("stopping a process needs signals");
#else
    auto machine = makeDevice(QStringLiteral("frozen"));
    QVERIFY(machine);
    QCOMPARE(m_engine->startMachine(machine.get(), QString()), int(QEMUMachine::StartRunning));
    track(*machine);
    const qint64 pid = lockedPid(*machine);
    QCOMPARE(::kill(pid_t(pid), SIGSTOP), 0);

    LogCapture log;
    QVERIFY(m_engine->stopMachine(machine.get()));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Failed to quit VM gracefully"), qPrintable(log.dump()));
    QVERIFY(!QFile::exists(machine->lockFilePath()));
    QVERIFY(!isRunning(quint32(pid)));
#endif
}

void tst_Lifecycle::systemDiskHeldByAnotherQemu()
{
    auto machine = makeDevice(QStringLiteral("held"));
    QVERIFY(machine);
    QProcess holder;
    holder.setProgram(m_engine->qemuPath());
    holder.setArguments({QStringLiteral("-nodefaults"), QStringLiteral("-display"), QStringLiteral("none"),
                         QStringLiteral("-S"), QStringLiteral("-m"), QStringLiteral("64M"), QStringLiteral("-drive"),
                         QStringLiteral("file=%1/system.qcow2,format=qcow2").arg(machine->path())});
    holder.start();
    QVERIFY(holder.waitForStarted(5000));
    m_pids.append(holder.processId());
    // QEMU takes the image lock while it opens its drives; give it a bounded moment.
    QTest::qWait(1000);
    QCOMPARE(holder.state(), QProcess::Running);

    LogCapture log;
    QCOMPARE(m_engine->startMachine(machine.get(), QString()), int(QEMUMachine::StartSystemFileLocked));
    track(*machine);
    QVERIFY2(log.contains(QtCriticalMsg, "Another process is using a system file"), qPrintable(log.dump()));
    QVERIFY(QFile(machine->logFilePath()).size() > 0);

    holder.kill();
    QVERIFY(holder.waitForFinished(5000));
}

QTEST_GUILESS_MAIN(tst_Lifecycle)
#include "tst_lifecycle.moc"
