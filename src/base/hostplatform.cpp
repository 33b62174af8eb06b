#include "hostplatform.h"

HostPlatform HostPlatform::forWindows()
{
    return {QStringLiteral(".exe"), {QStringLiteral("whpx"), QStringLiteral("hax")},
            QStringLiteral("dsound"), false};
}

HostPlatform HostPlatform::forLinux()
{
    // "none" keeps QEMU from failing on hosts without a sound server (CI, servers).
    return {QString(), {QStringLiteral("kvm"), QStringLiteral("tcg")}, QStringLiteral("none"), false};
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
