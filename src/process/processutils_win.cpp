#include "processutils.h"

#include "logging.h"

#include <QFileInfo>

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// Version 2 declares the kernel32 (K32*) forms of the process-status functions.
#ifndef PSAPI_VERSION
#define PSAPI_VERSION 2
#endif
#include <psapi.h>

#include <cstring>

bool isRunning(quint32 pid)
{
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, DWORD(pid));
    if (!process) {
        // A dead pid is an ordinary answer here, not a fault.
        vmDebug("Failed to open process with Pid =", pid);
        return false;
    }
    const DWORD waitResult = WaitForSingleObject(process, 0);
    if (!CloseHandle(process)) {
        vmCritical("isRunning: Failed to close handle Pid =", pid);
        return false;
    }
    // The process object is signalled once the process has ended, even if still held open.
    return waitResult == WAIT_TIMEOUT;
}

bool destroyProcess(quint32 pid)
{
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, TRUE, DWORD(pid));
    if (!process) {
        vmCritical("Failed to open process with Pid =", pid);
        return false;
    }
    const bool terminated = TerminateProcess(process, 0);
    if (!terminated)
        vmCritical("Failed to terminate process with Pid =", pid);
    // Waited for even when termination failed: the process may be ending by itself.
    const bool ended = WaitForSingleObject(process, 1000) == WAIT_OBJECT_0;
    if (!ended)
        vmCritical("destroyProcess: Failed waiting for process end Pid =", pid);
    const bool closed = CloseHandle(process);
    if (!closed)
        vmCritical("destroyProcess: Failed to close handle Pid =", pid);
    return terminated && ended && closed;
}

QString processNameByPid(quint32 pid)
{
    HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, DWORD(pid));
    if (!process) {
        vmCritical("Failed to open process with Pid =", pid);
        return QString();
    }
    char buffer[MAX_PATH + 1];
    std::memset(buffer, 0, sizeof(buffer));
    const DWORD length = K32GetProcessImageFileNameA(process, buffer, MAX_PATH);
    if (length == 0) {
        vmCritical("Failed to get process name for Pid =", pid);
        if (!CloseHandle(process))
            vmCritical("processNameByPid: Failed to close handle Pid =", pid);
        return QString();
    }
    if (!CloseHandle(process)) {
        vmCritical("processNameByPid: Failed to close handle Pid =", pid);
        return QString();
    }
    // The image path is in device form (\Device\HarddiskVolume2\...); only its last part counts.
    const QString path = QString::fromLocal8Bit(buffer);
    return path.mid(path.lastIndexOf(QLatin1Char('\\')) + 1);
}

bool runsProgram(quint32 pid, const QString &program, const QDateTime &startedBy)
{
    Q_UNUSED(startedBy);
    // Written this way round on purpose: a name that cannot be read (empty) passes, so a
    // process we may not inspect is taken for the program rather than its record thrown away.
    return QFileInfo(program).fileName().startsWith(processNameByPid(pid));
}
