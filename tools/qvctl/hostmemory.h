#pragma once

#include <QtGlobal>

#include <optional>

// The host's physical memory in MiB; none when the system does not tell.
std::optional<qint64> hostMemoryMegabytes();
