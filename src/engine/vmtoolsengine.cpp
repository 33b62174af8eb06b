#include "vmtoolsengine.h"

#include "hostdirectories.h"
#include "logging.h"
#include "multisettings.h"
#include "ovaextractor.h"
#include "vmtoolsmachine.h"

#include <QFileInfo>
#include <QSet>

#include <cstring>

namespace {

constexpr quint32 VendorLeaf = 0x0;
constexpr quint32 FeatureLeaf = 0x1;
constexpr quint32 ExtendedFeatureLeaf = 0x80000001;
constexpr quint32 VmxBit = 1u << 5;
constexpr quint32 SvmTestBit = 1u << 2;

// One register of the vendor string: four bytes of text, ending early at a zero byte so
// that a processor answering zeros gives an empty vendor rather than NUL characters.
QString vendorPart(quint32 value)
{
    char bytes[4];
    std::memcpy(bytes, &value, sizeof bytes);
    int length = 0;
    while (length < 4 && bytes[length] != '\0')
        ++length;
    return QString::fromUtf8(bytes, length);
}

QString cpuVendorOf(CpuidFunction cpuid)
{
    const CpuidRegisters registers = cpuid(VendorLeaf, 0);
    return vendorPart(registers.ebx) + vendorPart(registers.edx) + vendorPart(registers.ecx);
}

// The test reads leaf 1 on every vendor. On non-Intel processors the extended leaf is
// executed as well, but its registers are not used: the leaf-1 ECX is what gets logged
// and tested, which is the behaviour the host applications have always seen.
bool testVirtualization(CpuidFunction cpuid, const QString &vendor)
{
    const quint32 ecx = cpuid(FeatureLeaf, 0).ecx;
    const QString hex = QString::number(ecx, 16);
    if (vendor == QLatin1String("GenuineIntel")) {
        vmDebug("CPUID 0x1 (Intel): ECX=", hex);
        return ecx & VmxBit;
    }
    cpuid(ExtendedFeatureLeaf, 0);
    vmDebug("CPUID 0x80000001 (AMD): ECX=", hex);
    return ecx & SvmTestBit;
}

} // namespace

VMToolsEngine::VMToolsEngine(CpuidFunction cpuid)
{
    m_cpuVendor = cpuVendorOf(cpuid);
    vmDebug("Chipset:", m_cpuVendor);
    m_virtualizationSupported = testVirtualization(cpuid, m_cpuVendor);
    m_devicesDirectory.setPath(
        settings()->value(QStringLiteral("virtual_devices.directory"), deployedDirectory()).toString());
}

VMToolsEngine::~VMToolsEngine() = default;

bool VMToolsEngine::machineExists(const QString &name)
{
    return isMachineLoadable(name) || isMachineDirectoryPresent(name);
}

// Looks in the default deployed directory, not in the configured devices directory: a
// device left there by an older host still counts as taken.
bool VMToolsEngine::isMachineDirectoryPresent(const QString &name) const
{
    const QStringList entries = QDir(deployedDirectory())
                                    .entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    const QSet<QString> names(entries.cbegin(), entries.cend());
    return names.contains(name);
}

QStringList VMToolsEngine::listSnapshots(VMToolsMachine *machine)
{
    Q_UNUSED(machine);
    return {};
}

int VMToolsEngine::startMachineWithSnapshotPolicy(VMToolsMachine *machine, bool &useSnapshot)
{
    if (!useSnapshot)
        return startMachine(machine, QString());
    if (!isSnapshotSupported(machine)) {
        vmDebug("Snapshot not supported, fallback on cold boot");
        useSnapshot = false;
        return startMachine(machine, QString());
    }
    if (machine->hasSnapshot()) {
        useSnapshot = true;
        return startMachine(machine, QStringLiteral("latest"));
    }
    vmDebug("No snapshot found, fallback on cold boot");
    useSnapshot = false;
    return startMachine(machine, QString());
}

bool VMToolsEngine::saveSnapshot(VMToolsMachine *machine, const QString &name)
{
    Q_UNUSED(machine);
    Q_UNUSED(name);
    return true;
}

bool VMToolsEngine::deleteSnapshot(VMToolsMachine *machine, const QString &name)
{
    Q_UNUSED(machine);
    Q_UNUSED(name);
    return true;
}

bool VMToolsEngine::extractSystemImage(const QString &archivePath, const Version &first,
                                       const Version &second)
{
    const QDir target(systemImageDirectory(first, second));
    if (target.exists(QStringLiteral("system.vmdk")) && target.exists(QStringLiteral("data.vmdk")))
        return true;

    if (!target.mkpath(QStringLiteral("."))) {
        vmCritical("Failed to create directory", target.absolutePath());
        return false;
    }
    if (extractOva(archivePath, target.absolutePath()) != OvaSuccess) {
        vmCritical("Failed to extract OVA");
        return false;
    }
    // The archive's own SD card disk is never used; devices get a fresh one.
    removeFile(target.absoluteFilePath(QStringLiteral("sdcard.vmdk")));
    return true;
}

QString VMToolsEngine::archivePath(const OsImage &image)
{
    const QString &uri = image.imageUri;
    if (QDir::isAbsolutePath(uri))
        return uri;
    const QUrl url(uri);
    if (url.isLocalFile())
        return url.toLocalFile();
    return ovaDirectory() + url.fileName();
}

bool VMToolsEngine::ensureSystemImageExtracted(const OsImage &image)
{
    return extractSystemImage(archivePath(image), image.osVersion, image.imageVersion);
}
