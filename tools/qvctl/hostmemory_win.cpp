#include "hostmemory.h"

#include <windows.h>

qint64 hostMemoryMegabytes()
{
    MEMORYSTATUSEX status;
    status.dwLength = sizeof(status);
    if (!GlobalMemoryStatusEx(&status))
        return 0;
    return qint64(status.ullTotalPhys / (1024 * 1024));
}
