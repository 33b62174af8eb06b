#include "hostplatform.h"

#include <QSysInfo>

HostPlatform HostPlatform::forWindows()
{
    return {QStringLiteral(".exe"), {QStringLiteral("whpx"), QStringLiteral("hax")},
            QStringLiteral("dsound,id=snd0,latency=0")};
}

HostPlatform HostPlatform::forLinux()
{
    // The "none" backend keeps QEMU from failing on hosts without a sound server.
    return {QString(), {QStringLiteral("kvm"), QStringLiteral("tcg")}, QStringLiteral("none,id=snd0"),
            false, true};
}

HostPlatform HostPlatform::current()
{
#if defined(Q_OS_WIN)
    HostPlatform platform = forWindows();
#else
    HostPlatform platform = forLinux();
#endif
    platform.arm64 = QSysInfo::buildCpuArchitecture() == QLatin1String("arm64");
    return platform;
}
