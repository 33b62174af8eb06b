#pragma once

#include <QString>

// What QEMU's standard error says about a failed or troubled start. QEMU reports most
// start problems only as text, so this is the one place that turns that text into causes.
enum class QemuDiagnosis {
    NoError = 0,            // nothing recognised, or an accelerator problem QEMU worked around
    LogUnreadable = 1,      // the file could not be read
    AcceleratorError = 2,   // no usable accelerator
    DeviceBusy = 3,
    SystemFileLocked = 4,   // another process holds a disk image's write lock
    PortInUse = 5,          // a forwarded port or QEMU's own listening port is taken
    MemoryNotSupported = 6, // the memory size cannot be addressed on this host
};

// Reads the whole file and classifies it; the first rule that holds decides.
QemuDiagnosis diagnoseQemuErrors(const QString &filePath);

// The checks a start runs on qemu.log, in this order. Each reads the file again.
bool isDeviceBusy(const QString &filePath);
bool isSystemFileUsed(const QString &filePath);
bool isPortUsed(const QString &filePath);
bool isMemorySizeNotSupported(const QString &filePath);
