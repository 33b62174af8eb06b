#include "qemudiagnosis.h"

#include "errortriggers.h"
#include "fileutils.h"
#include "logging.h"

namespace {

bool mentions(const QString &text, const char *needle)
{
    return text.contains(QLatin1String(needle), Qt::CaseInsensitive);
}

} // namespace

QemuDiagnosis diagnoseQemuErrors(const QString &filePath)
{
    const ReadResult file = readFile(filePath);
    if (!file.ok) {
        // No evidence is not good news: a start must not pass silently on an unreadable log.
        Log::critical("Cannot open QEMU stderr, assuming an error");
        return QemuDiagnosis::LogUnreadable;
    }
    const QString text = QString::fromUtf8(file.data);

    if (mentions(text, "device or resource busy")) {
        Log::critical("Device or resource busy");
        return QemuDiagnosis::DeviceBusy;
    }
    if (mentions(text, "failed to get \"write\" lock")) {
        Log::critical("Another process is using a system file");
        return QemuDiagnosis::SystemFileLocked;
    }
    // The first comes from QEMU's own listeners such as the monitor, the second from a forward.
    if (mentions(text, "failed to find an available port")
        || mentions(text, "could not set up host forwarding rule")) {
        Log::critical("Another process is using the same port");
        return QemuDiagnosis::PortInUse;
    }
    if (mentions(text, "addressing limited"))
        return QemuDiagnosis::MemoryNotSupported;
    if (ErrorTriggers::memoryNotSupported())
        return QemuDiagnosis::MemoryNotSupported;
    if (mentions(text, "no accelerator found") || mentions(text, "invalid accelerator")) {
        // QEMU tries its accelerators in turn; a later one taking over is not a failure.
        if (mentions(text, "falling back")) {
            Log::info("QEMU succeed to switch on another accelerator", text);
            return QemuDiagnosis::NoError;
        }
        Log::critical("QEMU error found in logs", text);
        return QemuDiagnosis::AcceleratorError;
    }
    return QemuDiagnosis::NoError;
}

bool isDeviceBusy(const QString &filePath)
{
    Log::debug("Checking if device or resource is busy...");
    return diagnoseQemuErrors(filePath) == QemuDiagnosis::DeviceBusy;
}

bool isSystemFileUsed(const QString &filePath)
{
    Log::debug("Checking if another process is using a system file of QEMU...");
    return diagnoseQemuErrors(filePath) == QemuDiagnosis::SystemFileLocked;
}

bool isPortUsed(const QString &filePath)
{
    Log::debug("Checking if another process is using the port of QEMU...");
    return diagnoseQemuErrors(filePath) == QemuDiagnosis::PortInUse;
}

bool isMemorySizeNotSupported(const QString &filePath)
{
    Log::debug("Checking if memory size not supported on machine...");
    return diagnoseQemuErrors(filePath) == QemuDiagnosis::MemoryNotSupported;
}
