#include "hostmemory.h"

#include <unistd.h>

std::optional<qint64> hostMemoryMegabytes()
{
    // Linux knows both values, so neither call fails.
    return qint64(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGE_SIZE) / (1024 * 1024);
}
