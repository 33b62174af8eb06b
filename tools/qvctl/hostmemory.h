#pragma once

#include <QtGlobal>

// The host's physical memory in MiB, or 0 when the system does not tell.
qint64 hostMemoryMegabytes();
