#pragma once

#include "vmtoolsengine.h"
#include "vmtoolsmachine.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>

// The smallest concrete machine: the base class under test does all persistent work, the
// process hooks answer neutral values.
class TestMachine : public VMToolsMachine
{
public:
    using VMToolsMachine::VMToolsMachine;

    void prepareRunData() override {}
    bool reload() override { return load(); }
    void refreshRunData() override {}
    QString name() const override { return QFileInfo(m_path).fileName(); }
    bool rename(const QString &) override { return false; }
    QString uuid() const override { return m_extra.value(QStringLiteral("uuid")).toString(); }
    bool setUuid(const QString &) override { return false; }
    QString ipAddressAsync(std::function<void(const QString &)>) override { return {}; }
    int status() override { return StatePoweredOff; }
    QString ipAddress() const override { return QStringLiteral("127.0.0.1"); }
    QString adbSerial() const override { return {}; }
    bool supportsHotResize() const override { return false; }
    bool supportsPause() const override { return false; }
    bool supportsSdCard() const override { return true; }
    int factoryReset() override { return 0; }
    bool createSystemDisk(const OsImage &) override { return false; }
    MachineStatusRecord lastStartError() const override { return {}; }
    MachineStatusRecord lastRuntimeError() const override { return {}; }
    bool supportsFactoryReset() const override { return false; }
};

// The smallest concrete engine. It records what the base class asks of the engine's own
// operations (the start requests and the removed files) and answers the machine and
// snapshot questions with values the test chooses.
class TestEngine : public VMToolsEngine
{
public:
    using VMToolsEngine::VMToolsEngine;

    bool loadable = false;
    bool snapshotSupported = false;
    int startResult = 1;
    QStringList startedSnapshots;
    QStringList removedFiles;

    void initialize() override {}
    QString name() const override { return QStringLiteral("Test"); }
    QUrl downloadUrl() const override { return {}; }
    QString versionString() const override { return {}; }
    Version version() const override { return {}; }
    Version minimumVersion() const override { return {}; }
    Version maximumVersion() const override { return {}; }
    QStringList auxiliaryList1() const override { return {}; }
    QList<VMToolsMachine *> listMachines(const ProgressCallback &) override { return {}; }
    VMToolsMachine *loadMachine(const QString &) override { return nullptr; }
    bool isMachineLoadable(const QString &) override { return loadable; }
    QString auxiliaryString1() const override { return {}; }
    VMToolsMachine *createMachine(const QString &, const OsImage &, const HwProfile &,
                                  const QVariantMap &) override { return nullptr; }
    int createDevice(const QString &, const OsImage &, const HwProfile &) override { return 1; }
    int startMachine(VMToolsMachine *, const QString &snapshotName) override
    {
        startedSnapshots << snapshotName;
        return startResult;
    }
    bool stopMachine(VMToolsMachine *) override { return false; }
    bool deleteMachine(VMToolsMachine *) override { return false; }
    bool isAccelerationAvailable() override { return false; }
    bool isSnapshotSupported(VMToolsMachine *) const override { return snapshotSupported; }
    bool applyMachineChange(VMToolsMachine *, const QString &, const QString &) override { return false; }
    VMToolsMachine *cloneMachine(VMToolsMachine *, const QString &) override { return nullptr; }
    bool copyFile(const QString &, const QString &) override { return false; }
    bool removeFile(const QString &path) override
    {
        removedFiles << path;
        return !QFileInfo::exists(path) || QFile::remove(path);
    }
    bool resizeDisk(VMToolsMachine *, const QString &, qint64) override { return false; }
    QString auxiliaryString2() const override { return {}; }
    QString sdcardDiskName() const override { return {}; }
    QStringList auxiliaryList2() const override { return {}; }
    QStringList auxiliaryList3() const override { return {}; }
    bool auxiliaryFlag() const override { return false; }
    QStringList installationErrors() override { return {}; }
};
