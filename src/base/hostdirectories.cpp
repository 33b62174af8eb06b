#include "hostdirectories.h"

#include "logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QStandardPaths>

namespace {

const char VendorName[] = "Lumarik";
const char ProductName[] = "Quorvel";

QString vendorDirectory()
{
    const QString qvHome = QString::fromLocal8Bit(qgetenv("QV_HOME"));
    if (qvHome.isEmpty()) {
        return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
                + QLatin1Char('/') + QLatin1String(VendorName);
    }
    const QDir dir(qvHome);
    if (!dir.mkpath(QStringLiteral(".")))
        qFatal("QV_HOME is set to '%s', but this directory cannot be created.", qvHome.toUtf8().constData());
    // Hidden inside QV_HOME, so a shared directory stays tidy.
    return dir.absolutePath() + QStringLiteral("/.") + QLatin1String(VendorName);
}

HostDirectories buildDirectories()
{
    HostDirectories d;
    d.vendor = vendorDirectory();
    d.home = d.vendor + QLatin1Char('/') + QLatin1String(ProductName);
    d.templates = d.home + QStringLiteral("/templates/");
    d.cache = d.home + QStringLiteral("/cache/");
    d.ova = d.home + QStringLiteral("/ova/");
    d.hwProfiles = d.home + QStringLiteral("/hwprofiles/");
    d.osImages = d.home + QStringLiteral("/osimages/");
    d.systemImages = d.home + QStringLiteral("/system-images/");
    d.deployed = d.home + QStringLiteral("/deployed/");
    d.themes = d.home + QStringLiteral("/themes/");
    d.skins = d.home + QStringLiteral("/skins/");
    d.media = d.home + QStringLiteral("/media/");

    // A directory that cannot be made is not fatal: the operations that need it fail
    // later with their own message, and everything else keeps working.
    const QString inCreationOrder[] = {d.home, d.templates, d.cache, d.ova, d.deployed, d.themes,
                                       d.hwProfiles, d.osImages, d.systemImages, d.skins, d.media};
    for (const QString &path : inCreationOrder) {
        if (!QDir().mkpath(path))
            Log::critical("Failed to create", path, "things may go wrong");
    }
    return d;
}

} // namespace

const HostDirectories &directories()
{
    static const HostDirectories table = buildDirectories();
    return table;
}

QString homeDirectory() { return directories().home; }
QString templatesDirectory() { return directories().templates; }
QString cacheDirectory() { return directories().cache; }
QString ovaDirectory() { return directories().ova; }
QString hwProfilesDirectory() { return directories().hwProfiles; }
QString osImagesDirectory() { return directories().osImages; }
QString systemImagesDirectory() { return directories().systemImages; }
QString deployedDirectory() { return directories().deployed; }
QString themesDirectory() { return directories().themes; }
QString skinsDirectory() { return directories().skins; }
QString mediaDirectory() { return directories().media; }

QString applicationDirectory()
{
    return QCoreApplication::applicationDirPath();
}

QString defaultQemuDirectory()
{
    return applicationDirectory() + QStringLiteral("/qemu/x86_64");
}
