#pragma once

#include "hostplatform.h"
#include "vmtoolsengine.h"

#include <QString>

class QEMUMachine;

// The engine that runs devices under QEMU: finds and checks the QEMU programs, starts and
// stops machines, and does the disk work with qemu-img.
class QEMUEngine : public VMToolsEngine
{
public:
    struct InstallStatus
    {
        int code = 0;  // 0 installed, 1 not installed
        QString message;
    };

    explicit QEMUEngine(const HostPlatform &platform = HostPlatform::current(),
                        CpuidFunction cpuid = hostCpuid);
    ~QEMUEngine() override;

    void initialize() override;
    QString name() const override;
    QUrl downloadUrl() const override;
    QString versionString() const override;
    Version version() const override;
    Version minimumVersion() const override;
    Version maximumVersion() const override;
    QStringList auxiliaryList1() const override;
    QList<VMToolsMachine *> listMachines(const ProgressCallback &progress) override;
    VMToolsMachine *loadMachine(const QString &name) override;
    bool isMachineLoadable(const QString &name) override;
    QString auxiliaryString1() const override;
    VMToolsMachine *createMachine(const QString &name, const OsImage &image,
                                  const HwProfile &profile, const QVariantMap &options) override;
    int createDevice(const QString &name, const OsImage &image, const HwProfile &profile) override;
    int startMachine(VMToolsMachine *machine, const QString &snapshotName) override;
    bool stopMachine(VMToolsMachine *machine) override;
    bool deleteMachine(VMToolsMachine *machine) override;
    bool isAccelerationAvailable() override;
    bool isSnapshotSupported(VMToolsMachine *machine) const override;
    QStringList listSnapshots(VMToolsMachine *machine) override;
    bool saveSnapshot(VMToolsMachine *machine, const QString &name) override;
    bool deleteSnapshot(VMToolsMachine *machine, const QString &name) override;
    bool applyMachineChange(VMToolsMachine *machine, const QString &newName,
                            const QString &newUuid) override;
    VMToolsMachine *cloneMachine(VMToolsMachine *source, const QString &newName) override;
    bool copyFile(const QString &source, const QString &destination) override;
    bool removeFile(const QString &path) override;
    bool resizeDisk(VMToolsMachine *machine, const QString &diskPath, qint64 sizeMegabytes) override;
    QString auxiliaryString2() const override;
    QString sdcardDiskName() const override;
    QStringList auxiliaryList2() const override;
    QStringList auxiliaryList3() const override;
    bool auxiliaryFlag() const override;
    QStringList installationErrors() override;

    InstallStatus checkInstallation(bool skipAccelerationProbe);
    // The first port offset free right now (not kept for a start); -1 when every one is taken.
    int findPortOffset();

    // Disk work with qemu-img (qemuengine_disks.cpp).
    bool createOverlayDisk(const QString &backingFile, const QString &targetFile);
    int createSdCardDisk(const QString &deviceDirectory, qint64 sizeMegabytes);
    bool convertToQcow2(const QString &sourceFile, const QString &targetFile);
    // First-time preparation of an image's reference folder (qemuengine_reference.cpp):
    // extraction, checks and conversion of the system disk, and of the data disk as well
    // when withData is set, under a lock shared by every process.
    bool prepareReferenceDisks(const QString &archive, const Version &first, const Version &second,
                               bool withData = true);
    // True for a single-file sparse VMDK that refers to no other file.
    bool isSafeVmdk(const QString &path);
    int deployDevice(const QString &name, const QString &ovaSource, qint64 sdCardSizeMegabytes,
                     const Version &first, const Version &second);
    int factoryReset(VMToolsMachine *machine);
    // Ends a reset that was cut short: kept when both new disks are in place, otherwise
    // rolled back to the disks it moved aside.
    static void finishInterruptedReset(const QString &device);
    static bool hasResetLeftovers(const QString &device);

    const HostPlatform &platform() const { return m_platform; }
    QString qemuPath() const { return m_qemuPath; }
    QString qemuImgPath() const { return m_qemuImgPath; }
    QString shareDir() const { return m_shareDir; }
    // The Unix socket of a device's QMP monitor; empty when QMP uses TCP (the host has no
    // Unix sockets, or the setting "virtual_devices.qmp_over_tcp" asks for the port).
    QString qmpSocketPath(const QString &devicePath) const;
    // The device directory of a name under the devices directory.
    QString devicePath(const QString &name) const;
    // False, with a critical line, for a name that would leave the devices directory.
    static bool isDeviceNameAllowed(const QString &name);

private:
    void probeAcceleration();
    // True when a device of that name would be overwritten (qemuengine_disks.cpp).
    bool isNameTaken(const QString &name);
    // True, with a critical line, when the machine runs; for operations that need it stopped.
    static bool isRunningNow(VMToolsMachine *machine);
    void queryVersion();

    HostPlatform m_platform;
    QString m_versionString;
    QString m_qemuPath;
    QString m_qemuImgPath;
    QString m_shareDir;
    bool m_accelerationSupported = true;
};
