#pragma once

#include "hwprofile.h"
#include "version.h"

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>

// The Android system image a device was made from.
struct OsImage
{
    QString uuid;
    QString name;
    QDateTime buildDate;
    HwProfile::Source source = HwProfile::Source::VENDOR;
    // Kept as a set: no duplicates, ascending by value.
    QList<HwProfile::FormFactor> supportedFormFactors;
    Version osVersion;     // Android version
    Version imageVersion;  // build of this image
    QString arch;
    QString imageUri;
    QString imageHash;
    qint64 imageSizeBytes = 0;
    Version version;       // format version of the description, as read
    qint32 sdkVersion = 0;
    bool isBeta = false;

    bool operator==(const OsImage &other) const;
};

Q_DECLARE_METATYPE(OsImage)

// Where an image's reference disks live: systemImagesDirectory() + "/" + first + "/" +
// second. The entry already ends with "/", so the result holds "//"; every user goes
// through QDir/QFileInfo, which tolerate it.
QString systemImageDirectory(const Version &first, const Version &second);

// A default record stands for "unsupported or faulty"; the reasons are logged.
OsImage parseOsImage(const QJsonObject &object);
QJsonObject serializeOsImage(const OsImage &image);
// Brings a description of format 1.0.0 up to 1.1.0; true when the record changed.
bool migrateOsImage(const QString &deviceName, OsImage &image);
