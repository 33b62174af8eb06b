#include "hwprofile.h"

#include "jsonfieldreader.h"
#include "logging.h"
#include "version.h"

#include <QJsonArray>

#include <tuple>

namespace {

const char SupportedVersion[] = "1.0.0";

HwDisplay readDisplay(const JsonFieldReader &reader)
{
    HwDisplay display;
    display.width = reader.readInt(QStringLiteral("width"));
    display.height = reader.readInt(QStringLiteral("height"));
    display.density = reader.readInt(QStringLiteral("density"));
    display.physicalSize = reader.readDouble(QStringLiteral("physical_size"));
    // Profiles from before rounded and padded screens lack these three.
    const auto optionalInt = [&reader](const char *key) {
        const QString name = QLatin1String(key);
        return reader.contains(name) ? reader.readInt(name) : 0;
    };
    display.bottomCornerRadius = optionalInt("bottom_corner_radius");
    display.topCornerRadius = optionalInt("top_corner_radius");
    display.contentPadding = optionalInt("content_padding");
    return display;
}

QJsonObject writeDisplay(const HwDisplay &display)
{
    return QJsonObject{
        {QStringLiteral("width"), display.width},
        {QStringLiteral("height"), display.height},
        {QStringLiteral("density"), display.density},
        {QStringLiteral("physical_size"), display.physicalSize},
        {QStringLiteral("bottom_corner_radius"), display.bottomCornerRadius},
        {QStringLiteral("top_corner_radius"), display.topCornerRadius},
        {QStringLiteral("content_padding"), display.contentPadding},
    };
}

// The optional build properties, read when present and always written.
struct StringField
{
    const char *key;
    QString HwProfile::*field;
};
const StringField OptionalProperties[] = {
    {"product_name", &HwProfile::productName},
    {"product_manufacturer", &HwProfile::productManufacturer},
    {"product_board", &HwProfile::productBoard},
    {"product_device", &HwProfile::productDevice},
    {"build_display_id", &HwProfile::buildDisplayId},
    {"build_type", &HwProfile::buildType},
    {"build_fingerprint", &HwProfile::buildFingerprint},
    {"build_tags", &HwProfile::buildTags},
};

void readDeviceProperties(const JsonFieldReader &reader, HwProfile &profile)
{
    profile.productModel = reader.readString(QStringLiteral("product_model"));
    profile.productBrand = reader.readString(QStringLiteral("product_brand"));
    for (const StringField &property : OptionalProperties) {
        const QString key = QLatin1String(property.key);
        if (reader.contains(key))
            profile.*property.field = reader.readString(key);
    }
    // "build_serial" is how older profiles spelled it.
    if (reader.contains(QStringLiteral("serialno")))
        profile.serialno = reader.readString(QStringLiteral("serialno"));
    else if (reader.contains(QStringLiteral("build_serial")))
        profile.serialno = reader.readString(QStringLiteral("build_serial"));
    if (reader.contains(QStringLiteral("vm_heap_size")))
        profile.vmHeapSize = reader.readInt(QStringLiteral("vm_heap_size"));
}

void readDisplaySettings(const JsonFieldReader &reader, HwProfile &profile)
{
    profile.hwNavigationKeys = reader.readBool(QStringLiteral("hw_navigation_keys"));
    profile.displayMode = reader.readEnum<HwProfile::DisplayMode>(QStringLiteral("display_mode"));
    profile.displays.clear();
    // "display_list" is the older spelling, still found in profiles on disk.
    const QString key = reader.contains(QStringLiteral("display_list"))
            ? QStringLiteral("display_list")
            : QStringLiteral("displays");
    for (const JsonFieldReader &element : reader.readObjectArray(key))
        profile.displays.append(readDisplay(element));
}

bool hasValidScreenCount(const HwProfile &profile)
{
    const int count = profile.displays.size();
    if (profile.displayMode == HwProfile::DisplayMode::MULTI_DISPLAY && count < 2) {
        Log::warning("Multi-screen phones must have at least 2 screens, found", count);
        return false;
    }
    if (profile.displayMode == HwProfile::DisplayMode::FOLDABLE && count != 2) {
        Log::warning("Foldable phones must have exactly 2 screens, found", count);
        return false;
    }
    return true;
}

} // namespace

bool HwDisplay::operator==(const HwDisplay &o) const
{
    return std::tie(width, height, density, physicalSize, bottomCornerRadius, topCornerRadius,
                    contentPadding)
            == std::tie(o.width, o.height, o.density, o.physicalSize, o.bottomCornerRadius,
                        o.topCornerRadius, o.contentPadding);
}

QSize HwProfile::primaryResolution() const
{
    if (displays.isEmpty())
        return QSize();
    return QSize(displays.first().width, displays.first().height);
}

bool HwProfile::operator==(const HwProfile &o) const
{
    return std::tie(uuid, source, sharerEmail, formFactor, productModel, productBrand, productName,
                    productManufacturer, productBoard, productDevice, buildDisplayId, buildType,
                    buildFingerprint, buildTags, serialno, vmHeapSize, cpuCount, ramSize,
                    dataDiskSize, sdCardSize, displayMode, hwNavigationKeys, displays, skin,
                    skinVariant)
            == std::tie(o.uuid, o.source, o.sharerEmail, o.formFactor, o.productModel,
                        o.productBrand, o.productName, o.productManufacturer, o.productBoard,
                        o.productDevice, o.buildDisplayId, o.buildType, o.buildFingerprint,
                        o.buildTags, o.serialno, o.vmHeapSize, o.cpuCount, o.ramSize,
                        o.dataDiskSize, o.sdCardSize, o.displayMode, o.hwNavigationKeys,
                        o.displays, o.skin, o.skinVariant);
}

HwProfile parseHwProfile(const QJsonObject &object)
{
    const JsonFieldReader reader(object);
    const Version version = parseVersion(reader.readString(QStringLiteral("version")));
    if (reader.hasErrors() || version.majorVersion >= 2) {
        Log::warning("Unsupported hardware profile: version=", version.toString(), ", expected",
                     SupportedVersion);
        return HwProfile();
    }

    HwProfile profile;
    profile.uuid = reader.readString(QStringLiteral("uuid"));
    profile.source = reader.readEnum<HwProfile::Source>(QStringLiteral("source"));
    profile.sharerEmail = reader.readString(QStringLiteral("sharer_email"));
    profile.formFactor = reader.readEnum<HwProfile::FormFactor>(QStringLiteral("form_factor"));
    profile.cpuCount = reader.readInt(QStringLiteral("cpu_count"));
    profile.ramSize = reader.readInt(QStringLiteral("ram_size"));
    profile.dataDiskSize = reader.readInt(QStringLiteral("data_disk_size"));
    profile.sdCardSize = reader.readInt(QStringLiteral("sd_card_size"));
    readDisplaySettings(reader.readObject(QStringLiteral("display_settings")), profile);
    readDeviceProperties(reader.readObject(QStringLiteral("device_properties")), profile);
    if (reader.contains(QStringLiteral("skin")))
        profile.skin = reader.readString(QStringLiteral("skin"));

    if (reader.hasErrors()) {
        for (const QString &error : reader.errors())
            Log::warning("Error in field", error);
        return HwProfile();
    }
    if (!hasValidScreenCount(profile))
        return HwProfile();
    return profile;
}

QJsonObject serializeHwProfile(const HwProfile &profile)
{
    QJsonObject properties{
        {QStringLiteral("product_model"), profile.productModel},
        {QStringLiteral("product_brand"), profile.productBrand},
        {QStringLiteral("serialno"), profile.serialno},
        {QStringLiteral("vm_heap_size"), profile.vmHeapSize},
    };
    for (const StringField &property : OptionalProperties)
        properties.insert(QLatin1String(property.key), profile.*property.field);

    QJsonArray displays;
    for (const HwDisplay &display : profile.displays)
        displays.append(writeDisplay(display));

    return QJsonObject{
        {QStringLiteral("version"), QLatin1String(SupportedVersion)},
        {QStringLiteral("uuid"), profile.uuid},
        {QStringLiteral("source"), JsonFieldReader::enumName(profile.source)},
        {QStringLiteral("sharer_email"), profile.sharerEmail},
        {QStringLiteral("form_factor"), JsonFieldReader::enumName(profile.formFactor)},
        {QStringLiteral("cpu_count"), profile.cpuCount},
        {QStringLiteral("ram_size"), profile.ramSize},
        {QStringLiteral("data_disk_size"), profile.dataDiskSize},
        {QStringLiteral("sd_card_size"), profile.sdCardSize},
        {QStringLiteral("device_properties"), properties},
        {QStringLiteral("display_settings"),
         QJsonObject{
                 {QStringLiteral("display_mode"), JsonFieldReader::enumName(profile.displayMode)},
                 {QStringLiteral("hw_navigation_keys"), profile.hwNavigationKeys},
                 {QStringLiteral("displays"), displays},
         }},
        {QStringLiteral("skin"), profile.skin},
    };
}
