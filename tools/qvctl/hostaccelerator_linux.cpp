#include "hostaccelerator.h"

#include <QFile>

HostAccelerator hostAccelerator(bool engineAccelerates)
{
    if (!engineAccelerates)
        return {QStringLiteral("none"), false,
                QStringLiteral("QEMU runs with neither KVM nor TCG here, so devices cannot start. "
                               "Run 'qvctl -v check' to see QEMU's answer.")};
    // QEMU needs the device node read-write; QV_KVM_DEVICE lets a test hide it.
    const QString node = qEnvironmentVariableIsEmpty("QV_KVM_DEVICE") ? QStringLiteral("/dev/kvm")
                                                                       : qEnvironmentVariable("QV_KVM_DEVICE");
    QFile device(node);
    if (device.open(QIODevice::ReadWrite | QIODevice::ExistingOnly))
        return {QStringLiteral("KVM"), true, QString()};
    return {QStringLiteral("TCG"), false,
            QStringLiteral("KVM is not usable (%1: %2), so devices run under TCG and Android will be very slow. "
                           "To enable KVM, load the kvm_intel or kvm_amd module, add your user to the kvm group "
                           "(then log in again), and enable virtualisation in the firmware settings.")
                .arg(node, device.errorString())};
}
