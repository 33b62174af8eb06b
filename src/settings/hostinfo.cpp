#include "hostinfo.h"

#include <QSysInfo>

namespace HostInfo {

QString osVersion()
{
    return QSysInfo::prettyProductName();
}

QString cpuArchitecture()
{
    return QSysInfo::currentCpuArchitecture();
}

} // namespace HostInfo
