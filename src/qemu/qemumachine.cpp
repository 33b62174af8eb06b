#include "qemumachine.h"

#include "devicelock.h"
#include "hostdirectories.h"
#include "logging.h"
#include "processutils.h"
#include "commandrunner.h"
#include "qemucommandline.h"
#include "qemudiagnosis.h"
#include "qemuengine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QThread>
#include <QUuid>

namespace {

// QEMU reports most start failures within this time; it is the only wait before judging
// the start, so it must not be shortened.
constexpr unsigned long StartSettleMs = 2000;
// ADB is forwarded from 1000 above the guest's own port so a host-side ADB server on the
// standard port stays usable.
constexpr int AdbHostBasePort = 6555;
constexpr int WaitForEndMs = 1000;

const QString LocalHost = QStringLiteral("127.0.0.1");
const QString PidKey = QStringLiteral("pid");
const QString OffsetKey = QStringLiteral("offset");
const QString UuidKey = QStringLiteral("uuid");
const QString VirtualizerKey = QStringLiteral("virtualizer");
const QString SystemDiskName = QStringLiteral("system.qcow2");

} // namespace

QEMUMachine::QEMUMachine(QEMUEngine *engine, const QString &path)
    : VMToolsMachine(path),
      m_engine(engine),
      m_lockFilePath(path + QStringLiteral("/qemu.lock"))
{
    if (isQemuRunning()) {
        m_state = StateRunning;
        loadPortOffset();
    } else {
        m_state = StatePoweredOff;
    }
}

QEMUMachine::QEMUMachine(QEMUEngine *engine, const QString &path, const HwProfile &profile,
                         const OsImage &image)
    : QEMUMachine(engine, path)
{
    m_hardwareProfile = profile;
    m_osImage = image;
    m_extra.insert(UuidKey, QUuid::createUuid());
    m_extra.insert(VirtualizerKey, QStringLiteral("QEMU"));
}

QEMUMachine::~QEMUMachine() = default;

bool QEMUMachine::save()
{
    // device.json lies in the shared folder, which the running QEMU holds as a FAT drive.
    if (isQemuRunning()) {
        vmCritical("Writing in shared folder while QEMU is running is forbidden");
        return false;
    }
    return VMToolsMachine::save();
}

bool QEMUMachine::load()
{
    // A reset killed half-way is finished or undone before anyone reads the disks; while
    // another operation holds the device it may still be running, so it is left alone.
    // The lock is taken only when a reset left something: a lock file costs a sync to disk,
    // which every device of a listing would pay.
    if (QEMUEngine::hasResetLeftovers(m_path)) {
        DeviceLock lock(m_path);
        if (lock.tryAcquire())
            QEMUEngine::finishInterruptedReset(m_path);
    }
    if (!VMToolsMachine::load())
        return false;
    return m_extra.value(VirtualizerKey).toString() == QLatin1String("QEMU");
}

void QEMUMachine::prepareRunData()
{
}

bool QEMUMachine::reload()
{
    return load();
}

void QEMUMachine::refreshRunData()
{
    loadPortOffset();
}

bool QEMUMachine::setSdCardSize(qint64 megabytes)
{
    DeviceLock lock(m_path);
    if (!lock.acquire())
        return false;
    const QString image = sdCardImagePath();
    if (QFileInfo::exists(image) && !m_engine->resizeDisk(this, image, megabytes))
        return false;
    return changeProfile([megabytes](HwProfile &profile) { profile.sdCardSize = megabytes; });
}

bool QEMUMachine::setSdCardInserted(bool inserted)
{
    DeviceLock lock(m_path);
    if (!lock.acquire())
        return false;
    if (inserted) {
        const qint64 size = sdCardSize();
        if (size < 1)
            return false;
        if (!QFileInfo::exists(sdCardImagePath()))
            m_engine->createSdCardDisk(m_path, size);
    }
    return storeConfiguration(QStringLiteral("sdcard_inserted"), inserted);
}

QString QEMUMachine::name() const
{
    return QFileInfo(m_path).fileName();
}

bool QEMUMachine::rename(const QString &newName)
{
    const QString current = name();
    if (newName == current)
        return true;
    QDir parent(m_path);
    if (!parent.cdUp() || !parent.rename(current, newName))
        return false;
    m_path = parent.absoluteFilePath(newName);
    m_lockFilePath = m_path + QStringLiteral("/qemu.lock");
    return true;
}

QString QEMUMachine::uuid() const
{
    return m_extra.value(UuidKey).toString();
}

bool QEMUMachine::setUuid(const QString &uuid)
{
    m_extra.insert(UuidKey, uuid);
    return save();
}

bool QEMUMachine::regenerateUuid()
{
    return setUuid(QUuid::createUuid().toString(QUuid::WithoutBraces));
}

QString QEMUMachine::ipAddressAsync(std::function<void(const QString &)>)
{
    // The address is fixed, so there is nothing to wait for and nobody to call back.
    return LocalHost;
}

int QEMUMachine::status()
{
    return isQemuRunning() ? StateRunning : StatePoweredOff;
}

QString QEMUMachine::ipAddress() const
{
    return LocalHost;
}

QString QEMUMachine::adbSerial() const
{
    return QStringLiteral("127.0.0.1:%1").arg(adbPort());
}

// Each port is its base plus the offset, so "no offset" (-1) wraps like the 16-bit value.
quint16 QEMUMachine::adbPort() const { return quint16(AdbHostBasePort + m_portOffset); }
quint16 QEMUMachine::forwardedPort1() const { return quint16(VMToolsMachine::forwardedPort1() + m_portOffset); }
quint16 QEMUMachine::forwardedPort2() const { return quint16(VMToolsMachine::forwardedPort2() + m_portOffset); }
quint16 QEMUMachine::forwardedPort3() const { return quint16(VMToolsMachine::forwardedPort3() + m_portOffset); }
quint16 QEMUMachine::forwardedPort4() const { return quint16(VMToolsMachine::forwardedPort4() + m_portOffset); }
quint16 QEMUMachine::forwardedPort5() const { return quint16(VMToolsMachine::forwardedPort5() + m_portOffset); }
quint16 QEMUMachine::forwardedPort6() const { return quint16(VMToolsMachine::forwardedPort6() + m_portOffset); }
quint16 QEMUMachine::forwardedPort7() const { return quint16(VMToolsMachine::forwardedPort7() + m_portOffset); }

int QEMUMachine::qmpPort() const
{
    return QemuCommandLine::QmpBasePort + m_portOffset;
}

QmpEndpoint QEMUMachine::qmpEndpoint() const
{
    return {quint16(qmpPort()), m_engine->qmpSocketPath(m_path)};
}

bool QEMUMachine::supportsHotResize() const
{
    return false;
}

bool QEMUMachine::supportsPause() const
{
    return false;
}

bool QEMUMachine::supportsSdCard() const
{
    return true;
}

bool QEMUMachine::supportsFactoryReset() const
{
    return true;
}

int QEMUMachine::factoryReset()
{
    return m_engine->factoryReset(this);
}

bool QEMUMachine::createSystemDisk(const OsImage &image)
{
    const QDir imageDir(QDir::cleanPath(systemImageDirectory(image.osVersion, image.imageVersion)));
    const QString reference = imageDir.absoluteFilePath(SystemDiskName);
    if (!m_engine->prepareReferenceDisks(VMToolsEngine::archivePath(image), image.osVersion, image.imageVersion,
                                         false))
        return false;
    return m_engine->createOverlayDisk(reference, QDir(m_path).absoluteFilePath(SystemDiskName));
}

MachineStatusRecord QEMUMachine::lastStartError() const
{
    return {};
}

MachineStatusRecord QEMUMachine::lastRuntimeError() const
{
    return {};
}

int QEMUMachine::start(const QString &program, const QStringList &arguments, quint16 portOffset)
{
    if (isQemuRunning()) {
        vmWarning("QEMU process is already running.");
        return StartRunning;
    }
    if (!m_engine->isAccelerationAvailable())
        return StartAccelerationUnusable;

    // QEMU outlives this library: it is started detached and found again through the lock.
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice(), QIODevice::Truncate);
    process.setStandardErrorFile(logFilePath(), QIODevice::Truncate);
    qint64 pid = 0;
    if (!process.startDetached(&pid)) {
        vmCritical("Failed to start QEMU process with cmd:", Log::debugText(program), "args:",
                   Log::debugText(arguments));
        return StartFailed;
    }

    if (!writeLockFile(portOffset, pid)) {
        vmCritical("Failed create lock file.");
        killQemu();
        return StartFailed;
    }

    QThread::msleep(StartSettleMs);

    // A QEMU that reported a known failure may already be gone: look at its log before
    // asking whether it runs, so the cause is not lost as a plain "stopped too early".
    const QString log = logFilePath();
    if (isDeviceBusy(log))
        return StartDeviceBusy;
    if (isSystemFileUsed(log))
        return StartSystemFileLocked;
    if (isPortUsed(log))
        return StartPortInUse;
    if (isMemorySizeNotSupported(log))
        return StartMemoryNotSupported;

    if (isQemuRunning()) {
        m_portOffset = portOffset;
        m_runTimer.start();
        return StartRunning;
    }
    vmCritical("QEMU process has stopped too early. Check qemu.log for more details");
    return StartFailed;
}

bool QEMUMachine::killQemu()
{
    const quint32 pid = loadPid();
    if (pid == 0) {
        vmDebug("Cannot stop QEMU because no PID was found");
        m_portOffset = -1;
        return false;
    }
    // A lock whose process is gone or is something else is left over from an earlier run.
    if (!isRunning(pid) || !isQemuProcess(pid)) {
        vmDebug("We have a stall lock file: let's remove it.");
        m_portOffset = -1;
        QFile::remove(m_lockFilePath);
        return false;
    }
    // A process that survives keeps its lock.
    return destroyProcess(pid) && QFile::remove(m_lockFilePath);
}

void QEMUMachine::waitForQemuEnd()
{
    const quint32 pid = loadPid();
    if (pid == 0) {
        vmDebug("Failed to load QEMU pid");
        return;
    }
    if (waitForProcessEnd(pid, WaitForEndMs))
        QFile::remove(m_lockFilePath);
}

bool QEMUMachine::isQemuRunning() const
{
    const quint32 pid = loadPid();
    if (pid == 0)
        return false;
    if (!isRunning(pid)) {
        vmDebug("See no QEMU process with PID", pid);
        return false;
    }
    return isQemuProcess(pid);
}

quint32 QEMUMachine::loadPid() const
{
    const QSettings lock(m_lockFilePath, QSettings::IniFormat);
    return quint32(lock.value(PidKey).toLongLong());
}

void QEMUMachine::loadPortOffset()
{
    const QSettings lock(m_lockFilePath, QSettings::IniFormat);
    m_portOffset = lock.value(OffsetKey, -1).toInt();
}

bool QEMUMachine::writeLockFile(quint16 portOffset, qint64 pid)
{
    if (isQemuRunning()) {
        vmWarning("The lock file already exists and QEMU seems to run.");
        return false;
    }
    QSettings lock(m_lockFilePath, QSettings::IniFormat);
    lock.setValue(PidKey, pid);
    lock.setValue(OffsetKey, int(portOffset));
    lock.sync();
    if (lock.status() != QSettings::NoError) {
        vmCritical("Failed to write PID file to disk");
        return false;
    }
    return true;
}

bool QEMUMachine::isQemuProcess(quint32 pid) const
{
    // QEMU is launched before its lock is written: a process that started later only reuses the pid.
    return runsProgram(pid, m_engine->qemuPath(), QFileInfo(m_lockFilePath).lastModified());
}

QString QEMUMachine::logFilePath() const
{
    return QDir(m_path).absoluteFilePath(QStringLiteral("qemu.log"));
}

QString QEMUMachine::sdCardImagePath() const
{
    return QDir::cleanPath(m_path + QLatin1Char('/') + m_engine->sdcardDiskName());
}
