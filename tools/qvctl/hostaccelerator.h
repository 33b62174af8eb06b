#pragma once

#include <QString>

// The accelerator that devices will get on this host. QEMU is started with a list of
// accelerators and quietly falls back to the software one, so asking QEMU is not enough.
struct HostAccelerator
{
    QString name;     // "KVM", "TCG", "WHPX or HAXM" or "none"
    bool hardware;
    QString warning;  // what the user loses and how to fix it; empty when all is well
};

// engineAccelerates is the engine's own probe, used where the host has nothing better.
HostAccelerator hostAccelerator(bool engineAccelerates);
