#pragma once

#include "hostplatform.h"
#include "qemuoptionmap.h"

#include <QString>
#include <QStringList>
#include <QVector>

// Everything about one device that shapes its QEMU command line.
struct QemuLaunchSpec
{
    QString machinePath;      // device directory
    qint64 memoryMegabytes = 0;
    int cpuCount = 0;
    bool virtio = false;      // disks on virtio, shared folder read-only
    bool sdCardEnabled = false;
    QString snapshotName;     // empty = cold boot
    quint16 portOffset = 0;
    QString shareDir;         // QEMU's data directory, for the Arm64 firmware
    bool showWindow = false;  // QV_HYPERVISOR_WINDOW is set (even empty)
    bool forwardAllInterfaces = false;  // forwards listen on every interface, not on loopback
    QString qmpSocketPath;    // empty: QMP on TCP port 23555 + offset
};

// Builds the argument list of qemu-system for one device: the default options, the
// user's QV_QEMU_START_ARGS edits on top, flattened in option-name order.
class QemuCommandLine
{
public:
    struct PortForward
    {
        quint16 hostBase;
        quint16 guest;
    };

    static constexpr int QmpBasePort = 23555;

    explicit QemuCommandLine(const HostPlatform &platform);

    QemuOptionMap defaultOptions(const QemuLaunchSpec &launch) const;
    QStringList arguments(const QemuLaunchSpec &launch, const QString &overrides) const;

    // Entries separated by "&", each "-name=value", "-name[index]=value" or "-name=".
    static void applyOverrides(QemuOptionMap &options, const QString &overrides);
    static QStringList flatten(const QemuOptionMap &options);
    // The command as logged: one option per line, every piece quoted, for copy and paste.
    static QString startCommandText(const QString &program, const QStringList &arguments);
    // A value inside a comma-separated option list, such as a file name, with its commas doubled.
    static QString escapedOptionValue(QString value);
    static QString diskDriveSpec(const QString &path, bool virtio);
    // The device's service ports, forwarded from host base + port offset.
    static const QVector<PortForward> &portForwards();

private:
    HostPlatform m_platform;
};
