#include "hostmemory.h"

#include <windows.h>

std::optional<qint64> hostMemoryMegabytes()
{
    MEMORYSTATUSEX status;
    status.dwLength = sizeof(status);
    if (!GlobalMemoryStatusEx(&status))
        return std::nullopt;
    return qint64(status.ullTotalPhys / (1024 * 1024));
}
