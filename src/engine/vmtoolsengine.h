#pragma once

#include "hwprofile.h"
#include "osimage.h"
#include "version.h"

#include <QDir>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>

#include <functional>

class VMToolsMachine;

// Register values of one CPUID query. The engine reads them through a replaceable function
// so that both vendor paths of the virtualisation test can be exercised on any processor.
// A plain aggregate: CpuidRegisters{} reads as all zeros.
struct CpuidRegisters
{
    quint32 eax;
    quint32 ebx;
    quint32 ecx;
    quint32 edx;
};
using CpuidFunction = CpuidRegisters (*)(quint32 leaf, quint32 subleaf);
CpuidRegisters hostCpuid(quint32 leaf, quint32 subleaf);

// The engine a host gets from getVMToolsEngine. The order of the virtual operations is part
// of the contract with the host applications and must never change; the number of each slot
// is given in the comment beside it. Machines returned by the engine belong to the caller.
class VMToolsEngine
{
public:
    using ProgressCallback = std::function<void(int done, int total)>;

    explicit VMToolsEngine(CpuidFunction cpuid = hostCpuid);

    virtual ~VMToolsEngine();                                                      // 0
    virtual void initialize() = 0;                                                 // 1
    virtual QString name() const = 0;                                              // 2
    virtual QUrl downloadUrl() const = 0;                                          // 3
    virtual QString versionString() const = 0;                                     // 4
    virtual Version version() const = 0;                                           // 5
    virtual Version minimumVersion() const = 0;                                    // 6
    virtual Version maximumVersion() const = 0;                                    // 7
    virtual QStringList auxiliaryList1() const = 0;                                // 8
    virtual QList<VMToolsMachine *> listMachines(const ProgressCallback &progress) = 0; // 9
    virtual VMToolsMachine *loadMachine(const QString &name) = 0;                  // 10
    virtual bool machineExists(const QString &name);                               // 11
    virtual bool isMachineLoadable(const QString &name) = 0;                       // 12
    virtual bool isMachineDirectoryPresent(const QString &name) const;             // 13
    virtual QString auxiliaryString1() const = 0;                                  // 14
    virtual VMToolsMachine *createMachine(const QString &name, const OsImage &image,
                                          const HwProfile &profile,
                                          const QVariantMap &options) = 0;         // 15
    virtual int createDevice(const QString &name, const OsImage &image,
                             const HwProfile &profile) = 0;                        // 16
    virtual int startMachine(VMToolsMachine *machine, const QString &snapshotName) = 0; // 17
    virtual bool stopMachine(VMToolsMachine *machine) = 0;                         // 18
    virtual bool deleteMachine(VMToolsMachine *machine) = 0;                       // 19
    virtual bool isAccelerationAvailable() = 0;                                    // 20
    virtual bool isSnapshotSupported(VMToolsMachine *machine) const = 0;           // 21
    virtual QStringList listSnapshots(VMToolsMachine *machine);                    // 22
    virtual int startMachineWithSnapshotPolicy(VMToolsMachine *machine, bool &useSnapshot); // 23
    virtual bool saveSnapshot(VMToolsMachine *machine, const QString &name);       // 24
    virtual bool deleteSnapshot(VMToolsMachine *machine, const QString &name);     // 25
    virtual bool applyMachineChange(VMToolsMachine *machine, const QString &newName,
                                    const QString &newUuid) = 0;                   // 26
    virtual VMToolsMachine *cloneMachine(VMToolsMachine *source, const QString &newName) = 0; // 27
    virtual bool copyFile(const QString &source, const QString &destination) = 0;  // 28
    virtual bool removeFile(const QString &path) = 0;                              // 29
    virtual bool resizeDisk(VMToolsMachine *machine, const QString &diskPath,
                            qint64 sizeMegabytes) = 0;                             // 30
    virtual QString auxiliaryString2() const = 0;                                  // 31
    virtual QString sdcardDiskName() const = 0;                                    // 32
    virtual QStringList auxiliaryList2() const = 0;                                // 33
    virtual QStringList auxiliaryList3() const = 0;                                // 34
    virtual bool auxiliaryFlag() const = 0;                                        // 35
    virtual QStringList installationErrors() = 0;                                  // 36

    // Not virtual.
    bool extractSystemImage(const QString &archivePath, const Version &first, const Version &second);
    // Where the archive of an image is: a local path or file: URL in image_uri as it is,
    // otherwise the URL's file name in the ova directory.
    static QString archivePath(const OsImage &image);

    QDir devicesDirectory() const { return m_devicesDirectory; }
    QString cpuVendor() const { return m_cpuVendor; }
    bool isVirtualizationSupported() const { return m_virtualizationSupported; }

protected:
    QString m_text;
    quint64 m_reserved = 0;
    QDir m_devicesDirectory;
    QString m_cpuVendor;
    bool m_virtualizationSupported;
};
