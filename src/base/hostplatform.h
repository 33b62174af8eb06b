#pragma once

#include <QString>
#include <QStringList>

// What the QEMU command line and the acceleration probe need to know about the host.
// Kept a plain value so tests can build the Windows command line on Linux.
struct HostPlatform
{
    QString programSuffix;     // ".exe" on Windows
    QStringList accelerators;  // tried by QEMU in this order
    QString audioDevice;       // value of "-audiodev": backend, id and its options
    bool arm64 = false;
    // QMP on a Unix socket in the device's folder; otherwise on a TCP port of loopback.
    // Windows builds of QEMU may lack Unix sockets.
    bool qmpOnUnixSocket = false;

    QString programName(const QString &baseName) const { return baseName + programSuffix; }

    static HostPlatform forWindows();
    static HostPlatform forLinux();
    static HostPlatform current();
};
