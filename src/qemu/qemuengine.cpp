#include "qemuengine.h"

#include "commandrunner.h"
#include "devicelock.h"
#include "errortriggers.h"
#include "fileutils.h"
#include "hostdirectories.h"
#include "logging.h"
#include "multisettings.h"
#include "portoffsetreservation.h"
#include "processutils.h"
#include "productlinks.h"
#include "qemuclient.h"
#include "qemucommandline.h"
#include "qemudiagnosis.h"
#include "qemumachine.h"
#include "qmpsocket.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTcpServer>
#include <QTemporaryFile>
#include <QThread>

#include <memory>
#include <optional>

namespace {

// How long QEMU gets to reject its accelerators before the probe reads its error output.
constexpr unsigned long AccelerationProbeWaitMs = 1000;
// Offsets step by 7 so that a device's ports never overlap its neighbour's; a hundred of
// them, 0 to 693.
constexpr int PortOffsetStep = 7;
constexpr int PortOffsetCount = 100;

QString binaryDirectory()
{
    const QString configured = qEnvironmentVariable("QV_QEMU_BIN_DIR");
    return configured.isEmpty() ? defaultQemuDirectory() : configured;
}

// The hosts compare against bounds that must not move while they run, so each variable is
// read once, on first use, and kept for the rest of the process.
QString qemuVersionOverride()
{
    static const QString value = qEnvironmentVariable("QV_QEMU_VERSION");
    return value;
}

QString minimumVersionOverride()
{
    static const QString value = qEnvironmentVariable("QV_QEMU_MIN_VERSION");
    return value;
}

QString maximumVersionOverride()
{
    static const QString value = qEnvironmentVariable("QV_QEMU_MAX_VERSION");
    return value;
}

QStringList supportedImageArchitectures()
{
    const QStringList configured = qEnvironmentVariable("QV_OSIMAGE_ARCH_LIST")
                                           .split(QLatin1Char(';'), Qt::SkipEmptyParts);
    if (!configured.isEmpty())
        return configured;
    return {QStringLiteral("x86"), QStringLiteral("x86_64")};
}

// Off by default: the device's services (ADB above all) would be open to the whole network.
bool forwardAllInterfaces()
{
    return settings()->value(QStringLiteral("virtual_devices.forward_all_interfaces"), false).toBool();
}

// The probe listens where QEMU will: the eight forwards, and the monitor's TCP port, which
// stays reserved for hosts that connect to it.
bool canListenOnAllPorts(int offset, bool allInterfaces)
{
    const QHostAddress address = allInterfaces ? QHostAddress::Any : QHostAddress::LocalHost;
    QVector<int> ports{QemuCommandLine::QmpBasePort};
    for (const QemuCommandLine::PortForward &forward : QemuCommandLine::portForwards())
        ports.append(forward.hostBase);
    for (const int port : ports) {
        QTcpServer server;
        if (!server.listen(address, quint16(port + offset)))
            return false;
        server.close();
    }
    return true;
}

// Offsets that running devices keep even if their ports look free right now (a guest
// service may simply not listen yet).
QSet<int> offsetsOfRunningMachines(QList<VMToolsMachine *> machines)
{
    QSet<int> offsets;
    for (VMToolsMachine *machine : machines) {
        if (machine->status() == VMToolsMachine::StateRunning)
            offsets.insert(static_cast<QEMUMachine *>(machine)->portOffset());
    }
    qDeleteAll(machines);
    return offsets;
}

// The first offset from firstOffset on whose ports are free and that no other start holds;
// the reservation keeps it. None when there is none.
std::optional<int> reserveFreeOffset(PortOffsetReservation &reservation, const QSet<int> &running,
                                     int firstOffset, bool allInterfaces)
{
    for (int offset = firstOffset; offset < PortOffsetCount * PortOffsetStep; offset += PortOffsetStep) {
        if (running.contains(offset) || !reservation.tryHold(offset))
            continue;
        if (canListenOnAllPorts(offset, allInterfaces))
            return offset;
    }
    reservation.release();
    return std::nullopt;
}

} // namespace

QEMUEngine::QEMUEngine(const HostPlatform &platform, CpuidFunction cpuid)
    : VMToolsEngine(cpuid), m_platform(platform)
{
    const QDir binDir(binaryDirectory());
    m_qemuPath = binDir.absoluteFilePath(m_platform.programName(QStringLiteral("qemu-system-x86_64")));
    m_qemuImgPath = binDir.absoluteFilePath(m_platform.programName(QStringLiteral("qemu-img")));

    // A missing "share" leaves the parent: QEMU then simply finds no firmware there.
    QDir shareDir(binDir);
    shareDir.cdUp();
    shareDir.cd(QStringLiteral("share"));
    m_shareDir = shareDir.absolutePath();

    vmDebug("QEMU path:", m_qemuPath);
}

QEMUEngine::~QEMUEngine() = default;

void QEMUEngine::initialize()
{
}

QString QEMUEngine::name() const
{
    return QStringLiteral("QEMU");
}

QUrl QEMUEngine::downloadUrl() const
{
    return QUrl(QStringLiteral("https://www.qemu.org/download/"));
}

QString QEMUEngine::versionString() const
{
    return m_versionString;
}

Version QEMUEngine::version() const
{
    const QString configured = qemuVersionOverride();
    return parseVersion(configured.isEmpty() ? m_versionString : configured);
}

Version QEMUEngine::minimumVersion() const
{
    const QString configured = minimumVersionOverride();
    if (!configured.isEmpty())
        return parseVersion(configured);
    Version minimum;
    minimum.majorVersion = 6;
    minimum.minorVersion = 2;
    return minimum;
}

Version QEMUEngine::maximumVersion() const
{
    const QString configured = maximumVersionOverride();
    if (!configured.isEmpty())
        return parseVersion(configured);
    Version unbounded;
    unbounded.majorVersion = -1;
    return unbounded;
}

QStringList QEMUEngine::auxiliaryList1() const
{
    return {};
}

QList<VMToolsMachine *> QEMUEngine::listMachines(const ProgressCallback &progress)
{
    QList<VMToolsMachine *> machines;
    const QStringList names = m_devicesDirectory.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    int done = 0;
    for (const QString &name : names) {
        if (VMToolsMachine *machine = loadMachine(name))
            machines.append(machine);
        if (progress)
            progress(++done, int(names.size()));
    }
    return machines;
}

VMToolsMachine *QEMUEngine::loadMachine(const QString &name)
{
    if (!isDeviceNameAllowed(name))
        return nullptr;
    auto machine = std::make_unique<QEMUMachine>(this, devicePath(name));
    if (!machine->load())
        return nullptr;
    return machine.release();
}

bool QEMUEngine::isMachineLoadable(const QString &name)
{
    return std::unique_ptr<VMToolsMachine>(loadMachine(name)) != nullptr;
}

QString QEMUEngine::auxiliaryString1() const
{
    return {};
}

int QEMUEngine::startMachine(VMToolsMachine *vmMachine, const QString &snapshotName)
{
    auto *machine = dynamic_cast<QEMUMachine *>(vmMachine);
    if (!machine) {
        vmCritical("Cannot start a machine that QEMU does not run");
        return QEMUMachine::StartFailed;
    }

    const QStringList architectures = supportedImageArchitectures();
    const QString architecture = machine->osImage().arch;
    if (!architectures.contains(architecture)) {
        vmDebug(QStringLiteral("Incompatible OsImage arch (expected: %1, actual: %2)")
                        .arg(architectures.join(QLatin1Char('|')), architecture));
        return QEMUMachine::StartArchUnsupported;
    }

    DeviceLock lock(machine->path());
    if (!lock.acquireForNew())
        return QEMUMachine::StartDeviceBusy;
    // A delete in another process may have come first, while this one waited for the lock.
    if (!QFileInfo(machine->path()).isDir()) {
        vmCritical("Device", machine->name(), "no longer exists");
        return QEMUMachine::StartFailed;
    }
    if (machine->status() == VMToolsMachine::StateRunning) {
        // Another process may have started it since this object was loaded: take its ports.
        machine->refreshRunData();
        vmDebug("Virtual Machine status: on. Nothing to do.");
        return QEMUMachine::StartRunning;
    }

    const bool allInterfaces = forwardAllInterfaces();
    const QSet<int> running = offsetsOfRunningMachines(listMachines({}));
    // Held until the start has returned: QEMU has then bound its ports, or given up.
    PortOffsetReservation reservation(m_devicesDirectory.absolutePath());
    const std::optional<int> offset = reserveFreeOffset(reservation, running, 0, allInterfaces);
    if (!offset) {
        vmCritical("Failed to determine a port offset");
        return QEMUMachine::StartFailed;
    }

    QemuLaunchSpec launch;
    launch.machinePath = machine->path();
    launch.memoryMegabytes = machine->ramSize();
    launch.cpuCount = machine->cpuCount();
    launch.virtio = machine->usesVirtio();
    launch.sdCardEnabled = machine->isSdCardInserted();
    launch.snapshotName = snapshotName;
    launch.shareDir = m_shareDir;
    launch.showWindow = qEnvironmentVariableIsSet("QV_HYPERVISOR_WINDOW");
    launch.forwardAllInterfaces = allInterfaces;
    launch.qmpSocketPath = qmpSocketPath(machine->path());
    // The monitor's socket lives in the device folder: no other account may enter it.
    if (!launch.qmpSocketPath.isEmpty() && !makeOwnerOnly(machine->path())) {
        vmCritical("Cannot make", machine->path(), "private to its owner");
        return QEMUMachine::StartFailed;
    }
    const QString overrides = qEnvironmentVariable("QV_QEMU_START_ARGS");
    const auto launchAt = [&](int portOffset) {
        launch.portOffset = quint16(portOffset);
        const QStringList arguments = QemuCommandLine(m_platform).arguments(launch, overrides);
        vmDebug("Start command:", QemuCommandLine::startCommandText(m_qemuPath, arguments));
        return machine->start(m_qemuPath, arguments, quint16(portOffset));
    };

    const int result = launchAt(*offset);
    if (result != QEMUMachine::StartPortInUse || machine->isQemuRunning())
        return result;
    // A program took one of the ports between the probe and QEMU's start: one more try,
    // with the taken offset still held so that the search passes it.
    PortOffsetReservation next(m_devicesDirectory.absolutePath());
    const std::optional<int> nextOffset = reserveFreeOffset(next, running, *offset + PortOffsetStep, allInterfaces);
    if (!nextOffset)
        return result;
    vmWarning("Port offset", *offset, "was taken meanwhile, starting again at offset", *nextOffset);
    reservation.release();
    return launchAt(*nextOffset);
}

bool QEMUEngine::stopMachine(VMToolsMachine *vmMachine)
{
    auto *machine = dynamic_cast<QEMUMachine *>(vmMachine);
    if (!machine)
        return false;
    DeviceLock lock(machine->path());
    if (!lock.acquire())
        return false;

    QEMUClient client(machine->qmpEndpoint());
    if (client.quit()) {
        // The quit was accepted: whatever the wait finds, the stop counts as done.
        machine->waitForQemuEnd();
        return true;
    }
    vmCritical("Failed to quit VM gracefully");
    return machine->killQemu();
}

bool QEMUEngine::deleteMachine(VMToolsMachine *machine)
{
    if (!machine)
        return false;
    // Only ever a folder of ours: a machine whose path was changed under it is not removed.
    const QFileInfo folder(machine->path());
    if (!isDeviceNameAllowed(folder.fileName()) || folder.absoluteDir() != m_devicesDirectory) {
        vmCritical("Refusing to delete", folder.absoluteFilePath(), "outside", m_devicesDirectory.absolutePath());
        return false;
    }
    DeviceLock lock(machine->path());
    if (!lock.acquire() || isRunningNow(machine))
        return false;
    vmDebug("deleteMachine() with path", machine->path());
    return QDir(machine->path()).removeRecursively();
}

bool QEMUEngine::isAccelerationAvailable()
{
    if (ErrorTriggers::hypervisorError())
        return false;
    return m_accelerationSupported;
}

bool QEMUEngine::isSnapshotSupported(VMToolsMachine *) const
{
    return false;
}

QString QEMUEngine::auxiliaryString2() const
{
    return {};
}

QStringList QEMUEngine::auxiliaryList2() const
{
    return {};
}

QStringList QEMUEngine::auxiliaryList3() const
{
    return {};
}

bool QEMUEngine::auxiliaryFlag() const
{
    return {};
}

QStringList QEMUEngine::installationErrors()
{
    const InstallStatus status = checkInstallation(false);
    if (status.code == 0)
        return {};
    return {status.message};
}

QEMUEngine::InstallStatus QEMUEngine::checkInstallation(bool skipAccelerationProbe)
{
    if (!skipAccelerationProbe)
        probeAcceleration();
    queryVersion();

    // qemu-img is named first: without it no device can even be created.
    QString missing;
    if (ErrorTriggers::qemuNotInstalled() || !QFileInfo::exists(m_qemuImgPath))
        missing = m_qemuImgPath;
    else if (!QFileInfo::exists(m_qemuPath))
        missing = m_qemuPath;
    if (missing.isEmpty())
        return {};

    vmWarning("Could not find", missing);
    InstallStatus status;
    status.code = 1;
    status.message = QCoreApplication::translate("QEMUEngine", "install.error.%1.%2")
                             .arg(missing, ProductLinks::downloadLinkHtml());
    return status;
}

int QEMUEngine::findPortOffset()
{
    PortOffsetReservation reservation(m_devicesDirectory.absolutePath());
    return reserveFreeOffset(reservation, offsetsOfRunningMachines(listMachines({})), 0, forwardAllInterfaces())
            .value_or(-1);
}

QString QEMUEngine::qmpSocketPath(const QString &devicePath) const
{
    if (!m_platform.qmpOnUnixSocket || settings()->value(QStringLiteral("virtual_devices.qmp_over_tcp")).toBool())
        return {};
    return ::qmpSocketPath(devicePath);
}

QString QEMUEngine::devicePath(const QString &name) const
{
    return m_devicesDirectory.absoluteFilePath(name);
}

bool QEMUEngine::isRunningNow(VMToolsMachine *machine)
{
    // Asked again under the device's lock: a start in another process may have come between
    // the caller's own check and this operation.
    if (machine->status() != VMToolsMachine::StateRunning)
        return false;
    vmCritical("Device", machine->name(), "is running: stop it first");
    return true;
}

bool QEMUEngine::isDeviceNameAllowed(const QString &name)
{
    if (isPlainEntryName(name))
        return true;
    vmCritical("Invalid device name:", name);
    return false;
}

void QEMUEngine::probeAcceleration()
{
    Log::debug("Checking QEMU acceleration support...");

    QTemporaryFile errorOutput;
    errorOutput.open();

    QStringList arguments;
    for (const QString &accelerator : m_platform.accelerators)
        arguments << QStringLiteral("-accel") << accelerator;
    arguments << QStringLiteral("-nographic");

    // Without a machine QEMU puts its monitor on the standard streams: keep it away from
    // the host's terminal.
    QProcess process;
    process.setProgram(m_qemuPath);
    process.setArguments(arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice(), QIODevice::Truncate);
    process.setStandardErrorFile(errorOutput.fileName(), QIODevice::Truncate);
    qint64 pid = 0;
    if (!process.startDetached(&pid)) {
        Log::critical("Failed to start QEMU process with cmd=", m_qemuPath, "and args=",
                      arguments.join(QLatin1Char(' ')));
        m_accelerationSupported = false;
        return;
    }

    QThread::msleep(AccelerationProbeWaitMs);
    const QemuDiagnosis diagnosis = diagnoseQemuErrors(errorOutput.fileName());
    if (diagnosis == QemuDiagnosis::AcceleratorError)
        Log::critical("A Hyper-V or HAXM issue is detected");
    m_accelerationSupported = diagnosis != QemuDiagnosis::AcceleratorError;

    // QEMU may have given up on its own already; only a live process needs ending.
    if (isRunning(quint32(pid)))
        destroyProcess(quint32(pid));
    Log::debug("QEMU acceleration support", m_accelerationSupported);
}

void QEMUEngine::queryVersion()
{
    const CommandResult result = runCommand(m_qemuPath, {QStringLiteral("--version")});
    if (result.exitCode != 0) {
        vmCritical(m_qemuPath, "--version failed.");
        return;
    }
    static const QRegularExpression pattern(QStringLiteral(".* version ([a-zA-Z0-9.-]*).*"));
    const QRegularExpressionMatch match = pattern.match(result.output);
    m_versionString = match.hasMatch() ? match.captured(1) : QString();
    vmDebug("QEMU version string :", m_versionString);
}
