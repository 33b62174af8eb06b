#include "vmtoolsmachine.h"

#include "fileutils.h"
#include "logging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <tuple>

namespace {

const QString ConfigDirectory = QStringLiteral("shared/config");
const QString DeviceJsonName = QStringLiteral("device.json");
const QString ConfigurationKey = QStringLiteral("configuration");
const QString HardwareProfileKey = QStringLiteral("hardware_profile");
const QString OsImageKey = QStringLiteral("os_image");

const QString SdCardInsertedKey = QStringLiteral("sdcard_inserted");
const QString GlEsApiLevelKey = QStringLiteral("gl_es_api_level");
const QString FullscreenKey = QStringLiteral("fullscreen");
const QString VirtualKeyboardKey = QStringLiteral("virtual_keyboard");
const QString QuickbootKey = QStringLiteral("quickboot");

// Images newer than Android 8.0.0 attach their disks and shared folder through virtio.
// A pre-release of 8.0.0 has a negative status, so it stays on the old attachment.
// The status and its number count as one sum here, unlike in the ordering of Version.
bool isAboveAndroid8(const Version &v)
{
    return std::make_tuple(v.majorVersion, v.minorVersion, v.patchVersion, v.patchStatus + v.statusNumber)
           > std::make_tuple(8, 0, 0, 0);
}

} // namespace

VMToolsMachine::VMToolsMachine(const QString &path)
    : m_path(path)
{
}

VMToolsMachine::~VMToolsMachine() = default;

QString VMToolsMachine::deviceJsonPath() const
{
    return m_path + QLatin1Char('/') + ConfigDirectory + QLatin1Char('/') + DeviceJsonName;
}

bool VMToolsMachine::save()
{
    const QDir configDirectory(m_path + QLatin1Char('/') + ConfigDirectory);
    if (!configDirectory.mkpath(QStringLiteral("."))) {
        vmCritical("Failed to create directory:", configDirectory.absolutePath());
        return false;
    }

    // Written to a temporary file and renamed, so a crash or a full disk never leaves a
    // truncated description behind.
    QSaveFile file(configDirectory.filePath(DeviceJsonName));
    if (!file.open(QIODevice::WriteOnly)) {
        vmCritical("Failed to open file for writing:", file.errorString());
        return false;
    }

    // Known keys go in last, so a stray extra key of the same name cannot survive.
    QJsonObject object = QJsonObject::fromVariantMap(m_extra);
    object.insert(ConfigurationKey, QJsonObject::fromVariantMap(m_configuration));
    object.insert(HardwareProfileKey, serializeHwProfile(m_hardwareProfile));
    object.insert(OsImageKey, serializeOsImage(m_osImage));

    // The commit renames whatever reached the disk, even after a short write or a failed
    // flush (a full disk): those must be caught here, so that the old file stays.
    const QByteArray data = QJsonDocument(object).toJson(QJsonDocument::Indented);
    if (file.write(data) != data.size() || !file.flush() || !file.commit()) {
        vmCritical("Failed to write file:", file.fileName(), file.errorString());
        file.cancelWriting();
        return false;
    }
    return true;
}

bool VMToolsMachine::load()
{
    const QString jsonPath = deviceJsonPath();
    if (!QFileInfo::exists(jsonPath))
        return false;

    const JsonReadResult read = readJsonFile(jsonPath);
    if (read.status != 0)
        return false;

    QJsonObject object = read.document.object();
    OsImage image = parseOsImage(object.take(OsImageKey).toObject());
    const bool migrated = migrateOsImage(name(), image);
    m_osImage = image;

    m_hardwareProfile = parseHwProfile(object.take(HardwareProfileKey).toObject());
    if (!m_hardwareProfile.isValid()) {
        vmWarning("Failed to load hwProfile", jsonPath, ", skip device");
        return false;
    }

    m_configuration = object.take(ConfigurationKey).toObject().toVariantMap();
    m_extra = object.toVariantMap();

    if (migrated)
        save();
    return true;
}

bool VMToolsMachine::setup(const HwProfile &profile, const OsImage &image)
{
    m_hardwareProfile = profile;
    m_osImage = image;
    // Through the virtual setters, so a derived machine can act on each value (create or
    // resize its SD card disk, for example).
    setCpuCount(profile.cpuCount);
    setRamSize(profile.ramSize);
    setSdCardSize(profile.sdCardSize);
    setSdCardInserted(profile.hasSdCard());
    return save();
}

bool VMToolsMachine::storeConfiguration(const QString &key, const QVariant &value)
{
    m_configuration.insert(key, value);
    return save();
}

bool VMToolsMachine::changeProfile(const std::function<void(HwProfile &)> &change)
{
    change(m_hardwareProfile);
    return save();
}

bool VMToolsMachine::changeFirstDisplay(const std::function<void(HwDisplay &)> &change)
{
    if (m_hardwareProfile.displays.isEmpty())
        return true;
    change(m_hardwareProfile.displays.first());
    return save();
}

qint64 VMToolsMachine::ramSize() const { return m_hardwareProfile.ramSize; }

bool VMToolsMachine::setRamSize(qint64 megabytes)
{
    return changeProfile([megabytes](HwProfile &p) { p.ramSize = megabytes; });
}

qint64 VMToolsMachine::vmHeapSize() const { return m_hardwareProfile.vmHeapSize; }

bool VMToolsMachine::setVmHeapSize(qint64 megabytes)
{
    return changeProfile([megabytes](HwProfile &p) { p.vmHeapSize = megabytes; });
}

int VMToolsMachine::bottomCornerRadius() const
{
    return m_hardwareProfile.displays.isEmpty() ? 0 : m_hardwareProfile.displays.first().bottomCornerRadius;
}

bool VMToolsMachine::setBottomCornerRadius(int radius)
{
    return changeFirstDisplay([radius](HwDisplay &d) { d.bottomCornerRadius = radius; });
}

int VMToolsMachine::topCornerRadius() const
{
    return m_hardwareProfile.displays.isEmpty() ? 0 : m_hardwareProfile.displays.first().topCornerRadius;
}

bool VMToolsMachine::setTopCornerRadius(int radius)
{
    return changeFirstDisplay([radius](HwDisplay &d) { d.topCornerRadius = radius; });
}

int VMToolsMachine::contentPadding() const
{
    return m_hardwareProfile.displays.isEmpty() ? 0 : m_hardwareProfile.displays.first().contentPadding;
}

bool VMToolsMachine::setContentPadding(int padding)
{
    return changeFirstDisplay([padding](HwDisplay &d) { d.contentPadding = padding; });
}

QString VMToolsMachine::glEsApiLevel() const
{
    return m_configuration.value(GlEsApiLevelKey, QString()).toString();
}

bool VMToolsMachine::setGlEsApiLevel(const QString &level)
{
    return storeConfiguration(GlEsApiLevelKey, level);
}

qint64 VMToolsMachine::sdCardSize() const { return m_hardwareProfile.sdCardSize; }

bool VMToolsMachine::setSdCardSize(qint64 megabytes)
{
    return changeProfile([megabytes](HwProfile &p) { p.sdCardSize = megabytes; });
}

bool VMToolsMachine::isSdCardInserted() const
{
    return m_configuration.value(SdCardInsertedKey, false).toBool();
}

bool VMToolsMachine::setSdCardInserted(bool inserted)
{
    return storeConfiguration(SdCardInsertedKey, inserted);
}

int VMToolsMachine::cpuCount() const { return m_hardwareProfile.cpuCount; }

bool VMToolsMachine::setCpuCount(int count)
{
    return changeProfile([count](HwProfile &p) { p.cpuCount = count; });
}

qint64 VMToolsMachine::sizeOnDisk()
{
    if (m_sizeOnDisk == -1) {
        qint64 total = 0;
        walkFiles(m_path, {}, [&total](const QFileInfo &file) { total += file.size(); });
        m_sizeOnDisk = total;
    }
    return m_sizeOnDisk;
}

int VMToolsMachine::state() const { return m_state; }

QString VMToolsMachine::skin() const { return m_hardwareProfile.skin; }

bool VMToolsMachine::setSkin(const QString &skin)
{
    return changeProfile([&skin](HwProfile &p) { p.skin = skin; });
}

QString VMToolsMachine::sharerEmail() const { return m_hardwareProfile.sharerEmail; }

bool VMToolsMachine::setSharerEmail(const QString &email)
{
    return changeProfile([&email](HwProfile &p) { p.sharerEmail = email; });
}

QString VMToolsMachine::skinVariant() const { return m_hardwareProfile.skinVariant; }

bool VMToolsMachine::setSkinVariant(const QString &variant)
{
    return changeProfile([&variant](HwProfile &p) { p.skinVariant = variant; });
}

QString VMToolsMachine::formFactorCode() const
{
    return m_hardwareProfile.formFactor == HwProfile::FormFactor::TABLET ? QStringLiteral("tp")
                                                                         : QStringLiteral("p");
}

bool VMToolsMachine::isHardwareEditable() const { return true; }

int VMToolsMachine::displayDensity() const
{
    return m_hardwareProfile.displays.isEmpty() ? 0 : m_hardwareProfile.displays.first().density;
}

bool VMToolsMachine::setDisplayDensity(int density)
{
    return changeFirstDisplay([density](HwDisplay &d) { d.density = density; });
}

QSize VMToolsMachine::displaySize() const
{
    return m_hardwareProfile.primaryResolution();
}

HwProfile::DisplayMode VMToolsMachine::displayMode() const { return m_hardwareProfile.displayMode; }

bool VMToolsMachine::setDisplaySize(const QSize &size)
{
    return changeFirstDisplay([size](HwDisplay &d) {
        d.width = size.width();
        d.height = size.height();
    });
}

QList<HwDisplay> VMToolsMachine::displays() const { return m_hardwareProfile.displays; }

double VMToolsMachine::displayPhysicalSize() const
{
    return m_hardwareProfile.displays.isEmpty() ? 0.0 : m_hardwareProfile.displays.first().physicalSize;
}

HwProfile VMToolsMachine::hardwareProfile() const { return m_hardwareProfile; }

bool VMToolsMachine::setHwProfileUuid(const QString &uuid)
{
    return changeProfile([&uuid](HwProfile &p) { p.uuid = uuid; });
}

QString VMToolsMachine::hwProfileUuid() const { return m_hardwareProfile.uuid; }

bool VMToolsMachine::setOsImageName(const QString &name)
{
    m_osImage.name = name;
    return save();
}

OsImage VMToolsMachine::osImage() const { return m_osImage; }

QString VMToolsMachine::osImageName() const { return m_osImage.name; }

bool VMToolsMachine::setDataDiskSize(qint64 megabytes)
{
    return changeProfile([megabytes](HwProfile &p) { p.dataDiskSize = megabytes; });
}

qint64 VMToolsMachine::dataDiskSize() const { return m_hardwareProfile.dataDiskSize; }

QString VMToolsMachine::osImageDate() const
{
    return m_osImage.buildDate.toString(QStringLiteral("yyyy.MM.dd"));
}

bool VMToolsMachine::setFirstDisplay(const HwDisplay &display)
{
    return changeFirstDisplay([&display](HwDisplay &d) { d = display; });
}

bool VMToolsMachine::isFullscreen() const
{
    return m_configuration.value(FullscreenKey, false).toBool();
}

bool VMToolsMachine::setFullscreen(bool fullscreen)
{
    return storeConfiguration(FullscreenKey, fullscreen);
}

bool VMToolsMachine::usesSoftwareNavigationKeys() const { return !m_hardwareProfile.hwNavigationKeys; }

HwProfile::Source VMToolsMachine::profileSource() const { return m_hardwareProfile.source; }

bool VMToolsMachine::isVirtualKeyboardEnabled() const
{
    return m_configuration.value(VirtualKeyboardKey, false).toBool();
}

bool VMToolsMachine::setVirtualKeyboardEnabled(bool enabled)
{
    return storeConfiguration(VirtualKeyboardKey, enabled);
}

quint16 VMToolsMachine::adbPort() const { return 5555; }
quint16 VMToolsMachine::forwardedPort1() const { return 24810; }
quint16 VMToolsMachine::forwardedPort2() const { return 24800; }
quint16 VMToolsMachine::forwardedPort3() const { return 24297; }
quint16 VMToolsMachine::forwardedPort4() const { return 24296; }
quint16 VMToolsMachine::forwardedPort5() const { return 6379; }
quint16 VMToolsMachine::forwardedPort6() const { return 25000; }
quint16 VMToolsMachine::forwardedPort7() const { return 22468; }

QVariant VMToolsMachine::configurationValue(const QString &key, const QVariant &defaultValue) const
{
    const QString text = m_configuration.value(key).toString();
    return text.isEmpty() ? defaultValue : QVariant(text);
}

bool VMToolsMachine::setConfigurationValue(const QString &key, const QVariant &value)
{
    return storeConfiguration(key, value);
}

QString VMToolsMachine::productName() const { return m_hardwareProfile.productName; }

bool VMToolsMachine::setProductName(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productName = value; });
}

HwProfile::FormFactor VMToolsMachine::formFactor() const { return m_hardwareProfile.formFactor; }

bool VMToolsMachine::setFormFactor(HwProfile::FormFactor formFactor)
{
    return changeProfile([formFactor](HwProfile &p) { p.formFactor = formFactor; });
}

QString VMToolsMachine::productModel() const { return m_hardwareProfile.productModel; }

bool VMToolsMachine::setProductModel(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productModel = value; });
}

QString VMToolsMachine::productManufacturer() const { return m_hardwareProfile.productManufacturer; }

bool VMToolsMachine::setProductManufacturer(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productManufacturer = value; });
}

QString VMToolsMachine::productBrand() const { return m_hardwareProfile.productBrand; }

bool VMToolsMachine::setProductBrand(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productBrand = value; });
}

QString VMToolsMachine::productBoard() const { return m_hardwareProfile.productBoard; }

bool VMToolsMachine::setProductBoard(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productBoard = value; });
}

QString VMToolsMachine::buildDisplayId() const { return m_hardwareProfile.buildDisplayId; }

bool VMToolsMachine::setBuildDisplayId(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.buildDisplayId = value; });
}

QString VMToolsMachine::productDevice() const { return m_hardwareProfile.productDevice; }

bool VMToolsMachine::setProductDevice(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.productDevice = value; });
}

bool VMToolsMachine::setSerialno(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.serialno = value; });
}

QString VMToolsMachine::serialno() const { return m_hardwareProfile.serialno; }

bool VMToolsMachine::setBuildType(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.buildType = value; });
}

QString VMToolsMachine::buildType() const { return m_hardwareProfile.buildType; }

bool VMToolsMachine::setBuildFingerprint(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.buildFingerprint = value; });
}

QString VMToolsMachine::buildFingerprint() const { return m_hardwareProfile.buildFingerprint; }

bool VMToolsMachine::setBuildTags(const QString &value)
{
    return changeProfile([&value](HwProfile &p) { p.buildTags = value; });
}

QString VMToolsMachine::buildTags() const { return m_hardwareProfile.buildTags; }

bool VMToolsMachine::setQuickbootEnabled(bool enabled)
{
    return storeConfiguration(QuickbootKey, enabled);
}

bool VMToolsMachine::isQuickbootEnabled() const
{
    return m_configuration.value(QuickbootKey, true).toBool();
}

bool VMToolsMachine::hasSnapshot() const { return m_hasSnapshot; }

void VMToolsMachine::setHasSnapshot(bool hasSnapshot) { m_hasSnapshot = hasSnapshot; }

QString VMToolsMachine::snapshotFilePath() const
{
    return m_path + QStringLiteral("/snapshot.snap");
}

QString VMToolsMachine::snapshotExtraFilePath() const
{
    return m_path + QStringLiteral("/snapshot.stex");
}

bool VMToolsMachine::deleteSnapshotFiles() const
{
    bool removedAll = true;
    for (const QString &path : {snapshotFilePath(), snapshotExtraFilePath()}) {
        if (QFileInfo::exists(path) && !QFile::remove(path))
            removedAll = false;
    }
    return removedAll;
}

quint32 VMToolsMachine::optionFlags() const
{
    quint32 flags = 0;
    if (isAboveAndroid8(m_osImage.osVersion))
        flags |= VirtioFlag;
    return flags;
}

qint64 VMToolsMachine::uptimeMs() const
{
    return m_runTimer.isValid() ? m_runTimer.elapsed() : -1;
}
