#pragma once

#include <QString>

// Host facts shown in reports and sent with statistics.
namespace HostInfo {

QString osVersion();        // e.g. "Windows 10 Version 2009" or "Debian GNU/Linux 12 (bookworm)"
QString cpuArchitecture();  // e.g. "x86_64", "arm64"

} // namespace HostInfo
