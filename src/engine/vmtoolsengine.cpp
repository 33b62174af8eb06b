#include "vmtoolsengine.h"

#include "fileutils.h"
#include "hostdirectories.h"
#include "logging.h"
#include "multisettings.h"
#include "ovaextractor.h"
#include "vmtoolsmachine.h"

#include <QCryptographicHash>
#include <QFile>
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
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof bytes);
    return QString::fromUtf8(bytes, int(qstrnlen(bytes, sizeof bytes)));
}

QString cpuVendorOf(CpuidFunction cpuid)
{
    const CpuidRegisters registers = cpuid(VendorLeaf, 0);
    const QString vendor = vendorPart(registers.ebx) + vendorPart(registers.edx) + vendorPart(registers.ecx);
    vmDebug("Chipset:", vendor);
    return vendor;
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

// Names the archive a reference folder was made from, so that another archive that claims
// the same versions is noticed. The head holds the descriptor and the first disk's header;
// the path is left out, since archives get moved.
const QString OriginFile = QStringLiteral("origin.txt");
constexpr qint64 FingerprintHeadBytes = 1 << 20;

QByteArray archiveFingerprint(const QString &archivePath)
{
    QFile archive(archivePath);
    if (!archive.open(QIODevice::ReadOnly))
        return {};
    return "size " + QByteArray::number(archive.size()) + "\nhead-sha1 "
           + QCryptographicHash::hash(archive.read(FingerprintHeadBytes), QCryptographicHash::Sha1).toHex() + '\n';
}

// A folder made before origins were recorded, or whose archive is gone, has nothing to
// compare with and is taken as it is.
bool isExtractedFrom(const QDir &target, const QString &archivePath)
{
    const ReadResult origin = QFile::exists(target.absoluteFilePath(OriginFile))
                                      ? readFile(target.absoluteFilePath(OriginFile)) : ReadResult{};
    const QByteArray fingerprint = archiveFingerprint(archivePath);
    if (!origin.ok || fingerprint.isEmpty() || origin.data == fingerprint)
        return true;
    vmCritical("The disks in", target.absolutePath(), "were made from another archive than", archivePath);
    return false;
}

} // namespace

VMToolsEngine::VMToolsEngine(CpuidFunction cpuid)
    : m_cpuVendor(cpuVendorOf(cpuid)),
      m_virtualizationSupported(testVirtualization(cpuid, m_cpuVendor))
{
    // An empty folder means "not set", never the working directory.
    const QString configured = settings()->value(QStringLiteral("virtual_devices.directory")).toString();
    m_devicesDirectory.setPath(configured.trimmed().isEmpty() ? deployedDirectory() : configured);
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
                                    .entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Unsorted);
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
    const QDir target(QDir::cleanPath(systemImageDirectory(first, second)));
    if (!isExtractedFrom(target, archivePath))
        return false;
    if (target.exists(QStringLiteral("system.vmdk")) && target.exists(QStringLiteral("data.vmdk")))
        return true;

    // Unpacked aside, so that a cut-short extraction never stands in for a whole one; what an
    // interrupted run left there is thrown away.
    const QDir scratch(target.absolutePath() + QStringLiteral(".partial"));
    QDir(scratch).removeRecursively();
    if (!scratch.mkpath(QStringLiteral(".")) || !target.mkpath(QStringLiteral("."))) {
        vmCritical("Failed to create directory", target.absolutePath());
        return false;
    }
    if (extractOva(archivePath, scratch.absolutePath()) != OvaSuccess) {
        QDir(scratch).removeRecursively();
        vmCritical("Failed to extract OVA");
        return false;
    }
    // The archive's own SD card disk is never used; devices get a fresh one.
    removeFile(scratch.absoluteFilePath(QStringLiteral("sdcard.vmdk")));
    const bool recorded = writeFileAtomically(scratch.absoluteFilePath(OriginFile), archiveFingerprint(archivePath));
    // Each file moves whole; system.vmdk goes last, since both disks mark the folder complete.
    QStringList files = QDir(scratch).entryList(QDir::Files | QDir::Hidden, QDir::Name);
    files.removeOne(QStringLiteral("system.vmdk"));
    files.append(QStringLiteral("system.vmdk"));
    bool moved = recorded;
    for (const QString &file : qAsConst(files)) {
        QFile::remove(target.absoluteFilePath(file));
        moved = moved && QFile::rename(scratch.absoluteFilePath(file), target.absoluteFilePath(file));
    }
    QDir(scratch).removeRecursively();
    if (!moved)
        vmCritical("Failed to move the extracted disks into", target.absolutePath());
    return moved;
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
