#include "osimage.h"

#include "hostdirectories.h"
#include "jsonfieldreader.h"
#include "logging.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QSet>
#include <QUrl>

#include <algorithm>
#include <tuple>

namespace {

const Version FirstVersionWithArch{1, 1, 0, Version::Release, 0};
const Version MigratableVersion{1, 0, 0, Version::Release, 0};
const char CurrentVersion[] = "1.1.0";
const char VendorPlaceholder[] = "{{VENDOR}}";

QList<HwProfile::FormFactor> readFormFactors(const JsonFieldReader &reader)
{
    const QMetaEnum meta = QMetaEnum::fromType<HwProfile::FormFactor>();
    QList<HwProfile::FormFactor> factors;
    // Names this build does not know come from newer images; they are skipped, not refused.
    for (const QString &name : reader.readStringList(QStringLiteral("supported_form_factors"))) {
        const qint32 value = JsonFieldReader::enumValueFromName(meta, name);
        const auto factor = HwProfile::FormFactor(value);
        if (value != HwProfile::UnreadableEnum && !factors.contains(factor))
            factors.append(factor);
    }
    std::sort(factors.begin(), factors.end());
    return factors;
}

// Vendor images name only their file; the address on the image server is derived from
// the Android version. Addresses with a real scheme or already templated stay as they are.
void expandVendorUri(OsImage &image)
{
    static const QSet<QString> keptSchemes{QStringLiteral("file"), QStringLiteral("http"),
                                           QStringLiteral("https")};
    if (image.source != HwProfile::Source::VENDOR
        || image.imageUri.startsWith(QLatin1String(VendorPlaceholder))
        || keptSchemes.contains(QUrl(image.imageUri, QUrl::TolerantMode).scheme()))
        return;
    const QString versionText = image.osVersion >= Version{8, 0, 0, Version::Release, 0}
            ? image.osVersion.toShortString()
            : image.osVersion.toString();
    image.imageUri = QStringLiteral("{{%1}}/dists/%2/ova/%3")
                             .arg(JsonFieldReader::enumName(image.source), versionText,
                                  image.imageUri);
}

} // namespace

bool OsImage::operator==(const OsImage &o) const
{
    return std::tie(uuid, name, buildDate, source, supportedFormFactors, osVersion, imageVersion,
                    arch, imageUri, imageHash, imageSizeBytes, version, sdkVersion, isBeta)
            == std::tie(o.uuid, o.name, o.buildDate, o.source, o.supportedFormFactors,
                        o.osVersion, o.imageVersion, o.arch, o.imageUri, o.imageHash,
                        o.imageSizeBytes, o.version, o.sdkVersion, o.isBeta);
}

OsImage parseOsImage(const QJsonObject &object)
{
    const JsonFieldReader reader(object);
    OsImage image;
    image.version = parseVersion(reader.readString(QStringLiteral("version")));
    if (reader.hasErrors() || image.version.majorVersion >= 2) {
        Log::warning("Unsupported os image: version=", image.version.toString(), ", expected",
                     CurrentVersion);
        return OsImage();
    }

    image.name = reader.readString(QStringLiteral("name"));
    image.uuid = reader.readString(QStringLiteral("uuid"));
    image.buildDate = reader.readDateTime(QStringLiteral("build_date"));
    image.source = reader.readEnum<HwProfile::Source>(QStringLiteral("source"));
    image.supportedFormFactors = readFormFactors(reader);

    const JsonFieldReader android = reader.readObject(QStringLiteral("os_version"));
    image.osVersion = parseVersion(android.readString(QStringLiteral("os_version")));
    image.sdkVersion = android.readInt(QStringLiteral("sdk_version"));
    image.imageVersion = parseVersion(reader.readString(QStringLiteral("image_version")));

    // Descriptions of 1.0.0 had no architecture; migration fills it in afterwards.
    if (image.version >= FirstVersionWithArch || reader.contains(QStringLiteral("arch")))
        image.arch = reader.readString(QStringLiteral("arch"));

    image.imageUri = reader.readString(QStringLiteral("image_uri"));
    // Read through the 32-bit reader: sizes of 2 GiB and more come back as 0, although
    // the record and the written file carry 64 bits. Hosts rely on this behaviour.
    image.imageSizeBytes = reader.readInt(QStringLiteral("image_size_bytes"));
    image.imageHash = reader.readString(QStringLiteral("image_hash"));
    if (reader.contains(QStringLiteral("is_beta")))
        image.isBeta = reader.readBool(QStringLiteral("is_beta"));

    if (reader.hasErrors()) {
        QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Indented);
        if (json.endsWith('\n'))
            json.chop(1);
        Log::warning(json);
        Log::warning("Error in field", reader.errors().first());
        return OsImage();
    }

    expandVendorUri(image);
    return image;
}

QJsonObject serializeOsImage(const OsImage &image)
{
    QJsonArray formFactors;
    for (HwProfile::FormFactor factor : image.supportedFormFactors)
        formFactors.append(JsonFieldReader::enumName(factor));

    // The descriptive Android fields are not kept in the record; they are written empty.
    const QJsonObject android{
        {QStringLiteral("uuid"), QString()},
        {QStringLiteral("name"), QString()},
        {QStringLiteral("os_type"), QString()},
        {QStringLiteral("code_name"), QString()},
        {QStringLiteral("build_date"), QString()},
        {QStringLiteral("os_version"), image.osVersion.toString()},
        {QStringLiteral("sdk_version"), image.sdkVersion},
    };

    const Qt::DateFormat dateFormat =
            image.buildDate.time().msec() != 0 ? Qt::ISODateWithMs : Qt::ISODate;
    return QJsonObject{
        {QStringLiteral("version"), QLatin1String(CurrentVersion)},
        {QStringLiteral("name"), image.name},
        {QStringLiteral("uuid"), image.uuid},
        {QStringLiteral("source"), JsonFieldReader::enumName(image.source)},
        {QStringLiteral("supported_form_factors"), formFactors},
        {QStringLiteral("os_version"), android},
        {QStringLiteral("image_version"), image.imageVersion.toString()},
        {QStringLiteral("arch"), image.arch},
        {QStringLiteral("image_uri"), image.imageUri},
        {QStringLiteral("image_size_bytes"), image.imageSizeBytes},
        {QStringLiteral("image_hash"), image.imageHash},
        {QStringLiteral("build_date"), image.buildDate.toString(dateFormat)},
        {QStringLiteral("is_beta"), image.isBeta},
    };
}

bool migrateOsImage(const QString &deviceName, OsImage &image)
{
    if (image.version != MigratableVersion)
        return false;
    Log::debug(QStringLiteral("Migrating OsImage %1 of device %2 from 1.0.0 to 1.1.0")
                       .arg(image.name, deviceName));
    if (image.arch.isEmpty()) {
        image.arch = image.osVersion >= Version{11, 0, 0, Version::Release, 0}
                ? QStringLiteral("x86_64")
                : QStringLiteral("x86");
    }
    image.version = FirstVersionWithArch;
    return true;
}

QString systemImageDirectory(const Version &first, const Version &second)
{
    return systemImagesDirectory() + QLatin1Char('/') + first.toString() + QLatin1Char('/') + second.toString();
}
