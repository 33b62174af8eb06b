#include "hostmemory.h"

#include <unistd.h>

qint64 hostMemoryMegabytes()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGE_SIZE);
    if (pages <= 0 || pageSize <= 0)
        return 0;
    return qint64(pages) * pageSize / (1024 * 1024);
}
