#include "qemucommandline.h"

#include "logging.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <limits>

namespace {

QString diskPath(const QString &machinePath, const QString &fileName)
{
    return QDir(machinePath).filePath(fileName);
}

QString networkWithForwards(quint16 portOffset, bool allInterfaces)
{
    // An empty host address makes QEMU listen on every interface: the device's services
    // would then be open to the whole network.
    const QString host = allInterfaces ? QString() : QStringLiteral("127.0.0.1");
    QString value = QStringLiteral("user,id=net0,model=virtio-net-pci,net=10.0.2.0/24");
    for (const QemuCommandLine::PortForward &forward : QemuCommandLine::portForwards()) {
        value += QStringLiteral(",hostfwd=tcp:%1:%2-:%3")
                         .arg(host)
                         .arg(int(forward.hostBase) + portOffset)
                         .arg(forward.guest);
    }
    return value;
}

// The index group may hold more digits than any integer: such an index can never name
// an occurrence, but its sign still decides between "remove all" and "remove one".
qint64 parseIndex(const QString &text)
{
    bool ok;
    const qint64 index = text.toLongLong(&ok);
    if (ok)
        return index;
    return text.startsWith(QLatin1Char('-')) ? std::numeric_limits<qint64>::min()
                                             : std::numeric_limits<qint64>::max();
}

void applyOverride(QemuOptionMap &options, const QString &key, const QString &value,
                   const QString &indexText)
{
    const bool hasIndex = !indexText.isEmpty();
    const qint64 index = parseIndex(indexText);  // meaningless without an index, and unused then

    if (value.isEmpty()) {
        if (hasIndex && index >= 0)
            options.removeAt(key, index);
        else
            options.remove(key);
        return;
    }

    if (!options.contains(key)) {
        if (value == QLatin1String("true"))
            options.addFlag(key);
        else
            options.addText(key, value);
        return;
    }

    if (!hasIndex) {
        options.replaceText(key, options.count(key) - 1, value);
    } else if (index == -1) {
        options.addText(key, value);
    } else if (!options.replaceText(key, index, value)) {
        vmWarning("Ignoring QEMU option override", key + QLatin1Char('[') + indexText
                          + QLatin1Char(']'),
                  "- no such occurrence");
    }
}

} // namespace

QemuCommandLine::QemuCommandLine(const HostPlatform &platform)
    : m_platform(platform)
{
}

const QVector<QemuCommandLine::PortForward> &QemuCommandLine::portForwards()
{
    // Guest ADB listens on 5555; the other services keep their number on both sides.
    static const QVector<PortForward> forwards = {
        {6555, 5555},   {6379, 6379},   {22468, 22468}, {24297, 24297},
        {24296, 24296}, {24800, 24800}, {24810, 24810}, {25000, 25000},
    };
    return forwards;
}

QString QemuCommandLine::escapedOptionValue(QString value)
{
    // QEMU splits option lists at single commas; a doubled one stands for itself.
    return value.replace(QLatin1Char(','), QStringLiteral(",,"));
}

QString QemuCommandLine::diskDriveSpec(const QString &path, bool virtio)
{
    QString drive = QStringLiteral("file=%1,format=qcow2").arg(escapedOptionValue(path));
    if (virtio)
        drive += QStringLiteral(",if=virtio");
    return drive;
}

QemuOptionMap QemuCommandLine::defaultOptions(const QemuLaunchSpec &launch) const
{
    const QString drive = QStringLiteral("-drive");
    QemuOptionMap options;

    options.addText(drive, diskDriveSpec(diskPath(launch.machinePath, QStringLiteral("system.qcow2")),
                                         launch.virtio));
    options.addText(drive, diskDriveSpec(diskPath(launch.machinePath, QStringLiteral("data.qcow2")),
                                         launch.virtio));
    options.addText(QStringLiteral("-object"), QStringLiteral("iothread,id=disk-iothread"));
    if (!m_platform.arm64)
        options.addText(QStringLiteral("-vga"), QStringLiteral("std"));

    if (launch.sdCardEnabled) {
        const QString sdCard = diskPath(launch.machinePath, QStringLiteral("sdcard.qcow2"));
        const QFileInfo info(sdCard);
        // A missing card only costs the device its external storage, so the start goes on.
        // Neither test holds for a file that does not exist.
        if (info.isReadable() && info.isWritable()) {
            options.addText(drive, diskDriveSpec(sdCard, launch.virtio));
        } else {
            vmWarning("Failed to mount SdCard disk", sdCard,
                      ", disk is either missing or doesn't have RW permission.");
        }
    }

    options.addText(QStringLiteral("-m"), QStringLiteral("%1M").arg(launch.memoryMegabytes));
    options.addText(QStringLiteral("-smp"), QString::number(launch.cpuCount));
    if (m_platform.arm64)
        options.addText(QStringLiteral("-bios"), launch.shareDir + QStringLiteral("/QEMU_EFI.fd"));
    // Two dashes on purpose: the sound card sorts apart from the "-device" entries.
    options.addText(QStringLiteral("--device"), QStringLiteral("ac97,audiodev=snd0"));
    options.addText(QStringLiteral("-audiodev"), m_platform.audioDevice);
    for (const QString &accelerator : m_platform.accelerators)
        options.addText(QStringLiteral("-accel"), accelerator);
    if (m_platform.arm64)
        options.addText(QStringLiteral("-M"), QStringLiteral("virt"));

    options.addText(QStringLiteral("-nic"), networkWithForwards(launch.portOffset, launch.forwardAllInterfaces));
    options.addText(QStringLiteral("-nic"),
                    QStringLiteral("user,id=net1,model=virtio-net-pci,net=10.0.3.0/24"));

    const QString sharedFolder = QStringLiteral("shared");
    if (launch.snapshotName.isEmpty() && !launch.virtio) {
        vmDebug("No shapshot available. Load shared folder drive.");
        options.addText(drive, QStringLiteral("format=vvfat,label=shared,id=shared,file=fat:rw:%1/%2")
                                       .arg(escapedOptionValue(launch.machinePath), sharedFolder));
    }
    // A snapshot restores a guest that already saw the folder; with virtio the guest may
    // have cached it, so it never gets write access then.
    if (launch.virtio) {
        options.addText(drive, QStringLiteral("format=vvfat,label=shared,file=fat:ro:%1/%2,if=virtio")
                                       .arg(escapedOptionValue(launch.machinePath), sharedFolder));
    }
    if (!launch.snapshotName.isEmpty()) {
        vmDebug("Starting from snapshot", launch.snapshotName);
        options.addText(QStringLiteral("-loadvm"), launch.snapshotName);
    }

    const QString monitor = launch.qmpSocketPath.isEmpty()
            ? QStringLiteral("tcp:localhost:%1").arg(QmpBasePort + int(launch.portOffset))
            : QStringLiteral("unix:") + escapedOptionValue(launch.qmpSocketPath);
    options.addText(QStringLiteral("-qmp"), monitor + QStringLiteral(",server,nowait"));
    if (!launch.showWindow) {
        options.addFlag(QStringLiteral("-nographic"));
        options.addFlag(QStringLiteral("-nodefaults"));
    }
    options.addText(QStringLiteral("-device"), QStringLiteral("virtio-rng-pci"));
    return options;
}

void QemuCommandLine::applyOverrides(QemuOptionMap &options, const QString &overrides)
{
    static const QRegularExpression entryPattern(
            QStringLiteral("(?<key>-\\w+)(\\[(?<index>[-]?\\d+)\\])?=(?<value>.*)"));

    const QStringList entries = overrides.split(QLatin1Char('&'));
    for (const QString &entry : entries) {
        const QRegularExpressionMatch match = entryPattern.match(entry);
        if (!match.hasMatch())
            continue;
        applyOverride(options, match.captured(QStringLiteral("key")),
                      match.captured(QStringLiteral("value")), match.captured(QStringLiteral("index")));
    }
}

QStringList QemuCommandLine::flatten(const QemuOptionMap &options)
{
    QStringList arguments;
    const QStringList names = options.names();
    for (const QString &name : names) {
        const QVector<QemuOptionMap::Value> values = options.values(name);
        for (const QemuOptionMap::Value &value : values) {
            if (value.kind == QemuOptionMap::Value::Text)
                arguments << name << value.text;
            else if (value.kind == QemuOptionMap::Value::FlagSet)
                arguments << name;
        }
    }
    return arguments;
}

QStringList QemuCommandLine::arguments(const QemuLaunchSpec &launch, const QString &overrides) const
{
    QemuOptionMap options = defaultOptions(launch);
    applyOverrides(options, overrides);
    return flatten(options);
}

QString QemuCommandLine::startCommandText(const QString &program, const QStringList &arguments)
{
    QString text = QLatin1Char('"') + program + QLatin1Char('"');
    for (const QString &argument : arguments) {
        if (argument.startsWith(QLatin1Char('-')))
            text += QStringLiteral(" \\\n");
        text += QLatin1Char('"') + argument + QStringLiteral("\" ");
    }
    return text.trimmed();
}
