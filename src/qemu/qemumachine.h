#pragma once

#include "qmpendpoint.h"
#include "vmtoolsmachine.h"

#include <QString>
#include <QStringList>

class QEMUEngine;

// The machine of one device directory when the device runs under QEMU. A running device is
// recognised by qemu.lock (pid and port offset) and the host's process table; nothing about
// the process is cached between calls except the port offset.
class QEMUMachine : public VMToolsMachine
{
public:
    enum StartResult {
        StartFailed = 0,
        StartRunning = 1,
        StartAccelerationUnusable = 4,
        StartDeviceBusy = 5,
        StartSystemFileLocked = 6,
        StartPortInUse = 7,
        StartArchUnsupported = 8,
        StartMemoryNotSupported = 9,
    };

    QEMUMachine(QEMUEngine *engine, const QString &path);
    // A new device: fresh "uuid" and "virtualizer" = "QEMU" in the extra keys.
    QEMUMachine(QEMUEngine *engine, const QString &path, const HwProfile &profile, const OsImage &image);
    ~QEMUMachine() override;

    bool save() override;
    bool load() override;
    void prepareRunData() override;
    bool reload() override;
    void refreshRunData() override;
    bool setSdCardSize(qint64 megabytes) override;
    bool setSdCardInserted(bool inserted) override;
    QString name() const override;
    bool rename(const QString &newName) override;
    QString uuid() const override;
    bool setUuid(const QString &uuid) override;
    QString ipAddressAsync(std::function<void(const QString &)> callback) override;
    int status() override;
    QString ipAddress() const override;
    QString adbSerial() const override;
    quint16 adbPort() const override;
    quint16 forwardedPort1() const override;
    quint16 forwardedPort2() const override;
    quint16 forwardedPort3() const override;
    quint16 forwardedPort4() const override;
    quint16 forwardedPort5() const override;
    quint16 forwardedPort6() const override;
    quint16 forwardedPort7() const override;
    bool supportsHotResize() const override;
    bool supportsPause() const override;
    bool supportsSdCard() const override;
    int factoryReset() override;
    bool createSystemDisk(const OsImage &image) override;
    MachineStatusRecord lastStartError() const override;
    MachineStatusRecord lastRuntimeError() const override;
    bool supportsFactoryReset() const override;
    virtual int start(const QString &program, const QStringList &arguments, quint16 portOffset); // 112

    bool regenerateUuid();
    bool killQemu();
    void waitForQemuEnd();
    bool isQemuRunning() const;
    quint32 loadPid() const;
    void loadPortOffset();
    bool writeLockFile(quint16 portOffset, qint64 pid);
    bool isQemuProcess(quint32 pid) const;
    quint16 portOffset() const { return quint16(m_portOffset); }
    int qmpPort() const;
    // Where this device's QEMU takes QMP commands: its socket, or qmpPort() on loopback.
    QmpEndpoint qmpEndpoint() const;
    QString lockFilePath() const { return m_lockFilePath; }
    QString logFilePath() const;

private:
    QString sdCardImagePath() const;

    QEMUEngine *m_engine;
    QString m_lockFilePath;
    qint32 m_portOffset = -1;
};
