// QEMUEngine's disk work: snapshots, device creation and deployment, clone, factory reset
// and single-file operations, all done with qemu-img through the command runner.

#include "qemuengine.h"

#include "commandrunner.h"
#include "devicelock.h"
#include "filecopy.h"
#include "fileutils.h"
#include "hostdirectories.h"
#include "logging.h"
#include "qemuclient.h"
#include "qemuimgargs.h"
#include "qemumachine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <memory>

namespace {

const QString SystemDisk = QStringLiteral("system.qcow2");
const QString DataDisk = QStringLiteral("data.qcow2");
const QString SdCardDisk = QStringLiteral("sdcard.qcow2");
const QString ResetBackupSuffix = QStringLiteral(".before-reset");
const QString PartialSuffix = QStringLiteral(".partial");

// Removes a directory that an operation started to make, unless the operation got to its end.
class DirectoryGuard
{
public:
    explicit DirectoryGuard(const QString &path) : m_path(path) {}
    ~DirectoryGuard()
    {
        if (m_armed)
            QDir(m_path).removeRecursively();
    }
    void disarm() { m_armed = false; }

private:
    QString m_path;
    bool m_armed = true;
};

QString diskPath(const QString &directory, const QString &disk)
{
    return QDir(directory).absoluteFilePath(disk);
}

QString referenceDirectory(const OsImage &image)
{
    return systemImageDirectory(image.osVersion, image.imageVersion);
}

} // namespace

bool QEMUEngine::createOverlayDisk(const QString &backingFile, const QString &targetFile)
{
    const QFileInfo backing(backingFile);
    if (!backing.exists()) {
        vmCritical("Backing disk file not found:", backing.absoluteFilePath());
        return false;
    }
    const QString target = QFileInfo(targetFile).absoluteFilePath();
    const CommandResult result =
        runCommand(m_qemuImgPath, QemuImgArgs::createOverlay(backing.absoluteFilePath(), target));
    // qemu-img may complain and still make the disk: the file is what counts, once the run
    // got to its end.
    if (result.completed && QFileInfo::exists(target))
        return true;
    vmCritical("Failed to create disk", target, ".", result.error);
    QFile::remove(target);
    return false;
}

int QEMUEngine::createSdCardDisk(const QString &deviceDirectory, qint64 sizeMegabytes)
{
    const QString path = diskPath(deviceDirectory, SdCardDisk);
    const CommandResult result = runCommand(m_qemuImgPath, QemuImgArgs::createDisk(path, sizeMegabytes));
    if (!result.succeeded() || !QFileInfo::exists(path)) {
        vmCritical("Failed to create", path, result.output, result.error);
        QFile::remove(path);
        return result.exitCode != 0 ? result.exitCode : 1;
    }
    return 0;
}

int QEMUEngine::deployDevice(const QString &name, const QString &ovaSource, qint64 sdCardSizeMegabytes,
                             const Version &first, const Version &second)
{
    if (!isDeviceNameAllowed(name))
        return 1;
    if (isNameTaken(name)) {
        vmCritical("Can't create already existing device", name);
        return 1;
    }
    const QString device = devicePath(name);
    DirectoryGuard guard(device);
    if (QFileInfo::exists(device) && !QDir(device).removeRecursively()) {
        vmCritical("Failed to clean", device);
        return 1;
    }
    if (!QDir().mkpath(device)) {
        vmCritical("Failed to create directory", name, "in", m_devicesDirectory.absolutePath());
        return 1;
    }

    const QString reference = systemImageDirectory(first, second);
    if (!prepareReferenceDisks(ovaSource, first, second))
        return 1;
    const QString referenceSystem = diskPath(reference, SystemDisk);
    const QString referenceData = diskPath(reference, DataDisk);
    if (!createOverlayDisk(referenceSystem, diskPath(device, SystemDisk))) {
        vmCritical("Failed to create disks");
        return 1;
    }
    if (!copyFile(referenceData, diskPath(device, DataDisk))) {
        vmCritical("Failed to copy reference data disk to local one");
        return 1;
    }
    if (sdCardSizeMegabytes != 0 && createSdCardDisk(device, sdCardSizeMegabytes) != 0) {
        vmCritical("Failed to create sdcard disk");
        return 1;
    }
    guard.disarm();
    return 0;
}

int QEMUEngine::createDevice(const QString &name, const OsImage &image, const HwProfile &profile)
{
    if (!isDeviceNameAllowed(name))
        return 1;
    // device.json could not be read back without it, and the device would lose its image.
    if (!image.buildDate.isValid()) {
        vmCritical("Refusing OS image", image.name, "without a valid build date");
        return 1;
    }
    DeviceLock lock(devicePath(name));
    if (!lock.acquireForNew())
        return 1;
    if (isNameTaken(name)) {
        vmCritical("Can't create already existing device", name);
        return 1;
    }
    const int deployed = deployDevice(name, archivePath(image), profile.sdCardSize, image.osVersion,
                                      image.imageVersion);
    if (deployed != 0) {
        vmCritical("Failed to create device");
        return deployed;
    }
    // Saved as given: the disks were made to the profile already.
    QEMUMachine machine(this, devicePath(name), profile, image);
    if (!machine.save()) {
        vmCritical("Failed to save device");
        QDir(devicePath(name)).removeRecursively();
        return 1;
    }
    return 0;
}

VMToolsMachine *QEMUEngine::createMachine(const QString &name, const OsImage &image,
                                          const HwProfile &profile, const QVariantMap &options)
{
    if (createDevice(name, image, profile) != 0)
        return nullptr;
    VMToolsMachine *machine = loadMachine(name);
    if (!machine)
        return nullptr;
    for (auto it = options.cbegin(); it != options.cend(); ++it)
        machine->setConfigurationValue(it.key(), it.value());
    return machine;
}

int QEMUEngine::factoryReset(VMToolsMachine *machine)
{
    if (!machine) {
        vmCritical("Cannot factory reset null machine");
        return 2;
    }
    const QString reference = referenceDirectory(machine->osImage());
    const QString referenceSystem = diskPath(reference, SystemDisk);
    const QString referenceData = diskPath(reference, DataDisk);
    if (!QFileInfo::exists(referenceSystem) || !QFileInfo::exists(referenceData)) {
        vmCritical("Reference disks don't exist");
        const bool upgraded =
            machine->configurationValue(QStringLiteral("device_upgraded_at_least_once"), false).toBool();
        return upgraded ? 3 : 2;
    }
    DeviceLock lock(machine->path());
    if (!lock.acquire() || isRunningNow(machine))
        return 2;

    // The old disks are moved aside, not copied: that needs neither time nor space, and
    // they stay the device's disks until the new ones are whole.
    const QString device = machine->path();
    for (const QString &disk : {SystemDisk, DataDisk}) {
        if (QFileInfo::exists(diskPath(device, disk))
            && !QFile::rename(diskPath(device, disk), diskPath(device, disk + ResetBackupSuffix))) {
            vmCritical("Failed to backup", device);
            finishInterruptedReset(device);
            return 2;
        }
    }
    const QString system = diskPath(device, SystemDisk + PartialSuffix);
    const QString data = diskPath(device, DataDisk + PartialSuffix);
    bool made = false;
    if (!createOverlayDisk(referenceSystem, system))
        vmCritical("Failed to create system disk");
    else if (!copyFile(referenceData, data))
        vmCritical("Failed to copy data disk");
    else  // the two renames are the reset's end: once both disks are in place, it is done
        made = QFile::rename(system, diskPath(device, SystemDisk)) && QFile::rename(data, diskPath(device, DataDisk));
    finishInterruptedReset(device);
    return made ? 0 : 2;
}

bool QEMUEngine::hasResetLeftovers(const QString &device)
{
    for (const QString &disk : {SystemDisk, DataDisk}) {
        if (QFileInfo::exists(diskPath(device, disk + ResetBackupSuffix)) || QFileInfo::exists(diskPath(device, disk + PartialSuffix)))
            return true;
    }
    return false;
}

void QEMUEngine::finishInterruptedReset(const QString &device)
{
    const bool done = QFileInfo::exists(diskPath(device, SystemDisk)) && QFileInfo::exists(diskPath(device, DataDisk));
    for (const QString &disk : {SystemDisk, DataDisk}) {
        const QString backup = diskPath(device, disk + ResetBackupSuffix);
        QFile::remove(diskPath(device, disk + PartialSuffix));
        if (!QFileInfo::exists(backup))
            continue;
        if (done) {
            QFile::remove(backup);
            continue;
        }
        QFile::remove(diskPath(device, disk));
        if (!QFile::rename(backup, diskPath(device, disk)))
            vmCritical("Failed to restore", diskPath(device, disk));
    }
}

QStringList QEMUEngine::listSnapshots(VMToolsMachine *machine)
{
    const QString system = diskPath(machine->path(), SystemDisk);
    const CommandResult result = runCommand(m_qemuImgPath, QemuImgArgs::listSnapshots(system));
    if (!result.succeeded()) {
        vmCritical("Failed to list snapshots of", system);
        return {};
    }
    // Only rows that start with a numeric id are snapshots; a tag with characters outside
    // letters, digits and "_" is not recognised.
    static const QRegularExpression row(QStringLiteral("^\\d+\\s+(?<name>\\w+)\\s+\\N+$"),
                                        QRegularExpression::MultilineOption);
    QStringList names;
    auto it = row.globalMatch(result.output);
    while (it.hasNext()) {
        const QString name = it.next().captured(QStringLiteral("name"));
        vmDebug("found snapshot", name);
        names << name;
    }
    return names;
}

bool QEMUEngine::saveSnapshot(VMToolsMachine *machine, const QString &name)
{
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    DeviceLock lock(qemuMachine ? qemuMachine->path() : QString());
    // With virtio the shared folder is read-only and can stay; a writable vvfat drive blocks savevm.
    if (!qemuMachine || !lock.acquire() || !QEMUClient(qemuMachine->qmpEndpoint()).saveSnapshot(name, !machine->usesVirtio())) {
        vmCritical("Failed to save snapshot", name);
        return false;
    }
    return true;
}

bool QEMUEngine::deleteSnapshot(VMToolsMachine *machine, const QString &name)
{
    DeviceLock lock(machine->path());
    if (!lock.acquire())
        return false;
    if (!listSnapshots(machine).contains(name))
        return true;
    const QString directory = machine->path();
    const CommandResult result =
        runCommand(m_qemuImgPath, QemuImgArgs::deleteSnapshot(name, diskPath(directory, SystemDisk)));
    if (!result.succeeded()) {
        vmCritical("Failed to delete snapshot:", result.error);
        return false;
    }
    // The system disk decides; the other disks may lack the snapshot.
    runCommand(m_qemuImgPath, QemuImgArgs::deleteSnapshot(name, diskPath(directory, DataDisk)));
    const QString sdCard = diskPath(directory, SdCardDisk);
    if (QFileInfo::exists(sdCard))
        runCommand(m_qemuImgPath, QemuImgArgs::deleteSnapshot(name, sdCard));
    return machine->deleteSnapshotFiles();
}

bool QEMUEngine::applyMachineChange(VMToolsMachine *machine, const QString &newName, const QString &newUuid)
{
    return isDeviceNameAllowed(newName) && machine->rename(newName) && machine->setUuid(newUuid);
}

VMToolsMachine *QEMUEngine::cloneMachine(VMToolsMachine *source, const QString &newName)
{
    if (!isDeviceNameAllowed(newName))
        return nullptr;
    DeviceLock sourceLock(source->path());
    DeviceLock targetLock(devicePath(newName));
    if (!sourceLock.acquire() || !targetLock.acquireForNew() || isRunningNow(source))
        return nullptr;
    if (isNameTaken(newName)) {
        vmCritical("Can't clone to already existing device", newName);
        return nullptr;
    }
    const QString destination = devicePath(newName);
    if (QFileInfo::exists(destination) && !QDir(destination).removeRecursively()) {
        vmWarning("Failed to clean", destination);
        return nullptr;
    }
    // Made under a hidden name and renamed once whole, so that a clone cut short never
    // stands as a device with its source's uuid.
    const QString scratch = devicePath(QLatin1Char('.') + newName + PartialSuffix);
    DirectoryGuard guard(scratch);
    if (!QDir(scratch).removeRecursively() || !copyRecursively(source->path(), scratch)) {
        vmCritical("Failed to copy", source->path(), "to", destination);
        return nullptr;
    }
    // A copy of a running device's lock and log would make the clone look running.
    QFile::remove(diskPath(scratch, QStringLiteral("qemu.lock")));
    QFile::remove(diskPath(scratch, QStringLiteral("qemu.log")));

    QEMUMachine clone(this, scratch);
    if (!clone.load()) {
        vmCritical("Failed to retrieve cloned device");
        return nullptr;
    }
    if (!clone.regenerateUuid() || !QDir().rename(scratch, destination)) {
        vmCritical("Failed to update UUID of cloned device");
        return nullptr;
    }
    guard.disarm();
    return loadMachine(newName);
}

bool QEMUEngine::isNameTaken(const QString &name)
{
    // A folder of ours that holds no loadable device is what an interrupted create left:
    // it does not block the name. One under the default folder, when devices live
    // elsewhere, may be an older host's device and does.
    return isMachineLoadable(name)
           || (QDir(deployedDirectory()) != m_devicesDirectory && isMachineDirectoryPresent(name));
}

bool QEMUEngine::copyFile(const QString &source, const QString &destination)
{
    QString error;
    if (copyFileFast(source, destination, &error))
        return true;
    vmCritical("Failed to copy", source, "to", destination, ":", error);
    return false;
}

bool QEMUEngine::removeFile(const QString &path)
{
    QFile file(path);
    if (!file.exists())
        return true;
    if (file.remove())
        return true;
    vmWarning("Failed to remove", path, ":", file.errorString());
    return false;
}

bool QEMUEngine::resizeDisk(VMToolsMachine *, const QString &diskPath, qint64 sizeMegabytes)
{
    if (!QFileInfo::exists(diskPath))
        return false;
    const CommandResult result = runCommand(m_qemuImgPath, QemuImgArgs::resize(diskPath, sizeMegabytes));
    if (!result.succeeded()) {
        vmCritical("Failed to resize", diskPath, ".", result.error);
        return false;
    }
    return true;
}

QString QEMUEngine::sdcardDiskName() const
{
    return SdCardDisk;
}
