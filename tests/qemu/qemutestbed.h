#pragma once

#include "hwprofile.h"
#include "osimage.h"
#include "qemuengine.h"
#include "qemumachine.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QThread>
#include <QUuid>

#include <memory>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/types.h>
#endif

// Shared set-up of the QEMU engine and machine tests: device directories with a real
// device.json, and clean-up of every stand-in QEMU a test left running.
namespace QemuTestBed {

inline HwProfile profile(qint64 ramMegabytes = 256, int cpus = 1)
{
    HwProfile hw;
    hw.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    hw.productName = QStringLiteral("test");
    hw.ramSize = ramMegabytes;
    hw.cpuCount = cpus;
    hw.dataDiskSize = 64;
    return hw;
}

inline OsImage image(const QString &arch = QStringLiteral("x86_64"))
{
    OsImage os;
    os.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    os.name = QStringLiteral("Test image");
    os.buildDate = QDateTime(QDate(2023, 5, 17), QTime(10, 0), Qt::UTC);
    os.osVersion = parseVersion(QStringLiteral("7.1.0"));
    os.imageVersion = parseVersion(QStringLiteral("1.0.0"));
    os.arch = arch;
    os.imageUri = QStringLiteral("file:///nonexistent/test.ova");
    return os;
}

// A device directory under the engine's devices directory whose device.json was written
// by the machine itself.
inline QString createDevice(QEMUEngine &engine, const QString &name,
                            const QString &arch = QStringLiteral("x86_64"),
                            qint64 ramMegabytes = 256)
{
    const QString path = engine.devicePath(name);
    QDir().mkpath(path);
    QEMUMachine machine(&engine, path, profile(ramMegabytes), image(arch));
    return machine.save() ? path : QString();
}

inline std::unique_ptr<QEMUMachine> loadDevice(QEMUEngine &engine, const QString &name)
{
    return std::unique_ptr<QEMUMachine>(static_cast<QEMUMachine *>(engine.loadMachine(name)));
}

inline void writeLock(const QString &devicePath, qint64 pid, int offset = -1)
{
    QSettings lock(devicePath + QStringLiteral("/qemu.lock"), QSettings::IniFormat);
    lock.setValue(QStringLiteral("pid"), pid);
    if (offset >= 0)
        lock.setValue(QStringLiteral("offset"), offset);
    lock.sync();
}

// Every live process whose executable lies below dir (the stand-ins a test installed).
inline QList<qint64> processesBelow(const QString &dir)
{
    QList<qint64> pids;
#ifdef Q_OS_LINUX
    const QString prefix = QFileInfo(dir).canonicalFilePath() + QLatin1Char('/');
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        const QString exe = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid));
        if (exe.startsWith(prefix))
            pids.append(pid);
    }
#else
    Q_UNUSED(dir);
#endif
    return pids;
}

inline void killProcessesBelow(const QString &dir)
{
#ifdef Q_OS_UNIX
    for (qint64 pid : processesBelow(dir))
        ::kill(pid_t(pid), SIGKILL);
    // Give the kernel a moment to tear them down (bounded).
    for (int i = 0; i < 50 && !processesBelow(dir).isEmpty(); ++i)
        QThread::msleep(20);
#else
    Q_UNUSED(dir);
#endif
}

} // namespace QemuTestBed
