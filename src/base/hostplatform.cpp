#include "hostplatform.h"

HostPlatform HostPlatform::forWindows()
{
    return {QStringLiteral(".exe"), {QStringLiteral("whpx"), QStringLiteral("hax")},
            QStringLiteral("dsound,id=snd0,latency=0"), false};
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
#if defined(Q_PROCESSOR_ARM_64)
    platform.arm64 = true;
#endif
    return platform;
}
