#pragma once

#include <QString>

struct Version;

// The product's working directories on the host. Entries from templates onwards end
// with "/", so callers append file names directly.
struct HostDirectories
{
    QString vendor;
    QString home;
    QString templates;
    QString cache;
    QString ova;
    QString hwProfiles;
    QString osImages;
    QString systemImages;
    QString deployed;
    QString themes;
    QString skins;
    QString media;
};

// Built on first use (any thread; later callers wait for the first) and kept for the
// life of the process, so QV_HOME is read once. An uncreatable QV_HOME is fatal.
const HostDirectories &directories();

QString homeDirectory();
QString templatesDirectory();
QString cacheDirectory();
QString ovaDirectory();
QString hwProfilesDirectory();
QString osImagesDirectory();
QString systemImagesDirectory();
QString deployedDirectory();
QString themesDirectory();
QString skinsDirectory();
QString mediaDirectory();

QString applicationDirectory();
QString defaultQemuDirectory();

