#include "hostaccelerator.h"

HostAccelerator hostAccelerator(bool engineAccelerates)
{
    // The engine's probe starts QEMU with the Windows hypervisors only, so it answers truly.
    if (engineAccelerates)
        return {QStringLiteral("WHPX or HAXM"), true, QString()};
    return {QStringLiteral("none"), false,
            QStringLiteral("no hypervisor is usable, so devices cannot start. Enable virtualisation in the firmware "
                           "settings and turn on the Windows Hypervisor Platform.")};
}
