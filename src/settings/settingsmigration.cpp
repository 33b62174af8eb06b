#include "settingsmigration.h"

#include "hostdirectories.h"
#include "jsonsettings.h"
#include "logging.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QSettings>

#include <limits>

namespace {

const int CurrentVersion = 1;

enum class Kind { String, Bool, Int, Base64 };
// What an absent legacy key turns into: the type's empty value unless the row says otherwise.
enum class Fallback { Empty, True, HomeDirectory, DevicesDirectory };

struct Row
{
    const char *newKey;
    const char *oldKey;
    Kind kind;
    Fallback fallback = Fallback::Empty;
};

const Row Rows[] = {
    {"android_sdk.path", "android.sdk.path", Kind::String},
    {"android_sdk.enabled", "android.sdk.use", Kind::Bool},
    {"credentials.password", "credentials.password", Kind::Base64},
    {"credentials.email", "customer.email", Kind::String},
    {"eula.id-agreed", "eula-id.agreed", Kind::Int},
    {"virtualbox.host_only_interface_name", "host.only.interface", Kind::String},
    {"proxy.authentication.enabled", "proxy.authentication", Kind::Bool},
    {"proxy.authentication.password", "proxy.authentication.password", Kind::String},
    {"proxy.authentication.username", "proxy.authentication.username", Kind::String},
    {"proxy.enabled", "proxy.enabled", Kind::Bool},
    {"proxy.host", "proxy.host", Kind::String},
    {"proxy.port", "proxy.port", Kind::Int},
    {"proxy.type", "proxy.type", Kind::String},
    {"screencast.directory", "configuration_screencast_save_folder", Kind::String, Fallback::HomeDirectory},
    {"stats.enabled", "stats.send.stats", Kind::Bool, Fallback::True},
    {"clipboard.sharing-enabled", "shared.clipboard", Kind::Bool, Fallback::True},
    {"stats.installation_timestamp", "stats.installation.date", Kind::Int},
    {"stats.last_update_timestamp", "stats.last", Kind::Int},
    {"trusted.hosts", "trusted.hosts", Kind::String},
    {"virtual_devices.directory", "vms.path", Kind::String, Fallback::DevicesDirectory},
    {"changelog.last_seen_version", "whats.new.popup.last.version", Kind::String},
};

QVariant defaultFor(const Row &row)
{
    switch (row.fallback) {
    case Fallback::True:
        return true;
    case Fallback::HomeDirectory:
        return QDir::homePath();
    case Fallback::DevicesDirectory:
        return deployedDirectory();
    case Fallback::Empty:
        break;
    }
    switch (row.kind) {
    case Kind::Bool:
        return false;
    case Kind::Int:
        return 0;
    case Kind::String:
    case Kind::Base64:
        break;
    }
    return QString();
}

// Values the old releases could not really have meant fall back to the row's default: an
// empty folder (it would resolve against the working directory) and an integer that does
// not fit, which a plain conversion would silently truncate.
QVariant convert(const QVariant &value, const Row &row)
{
    switch (row.kind) {
    case Kind::String: {
        const QString text = value.toString();
        if (row.fallback != Fallback::Empty && text.trimmed().isEmpty())
            return defaultFor(row);
        return text;
    }
    case Kind::Bool:
        return value.toBool();
    case Kind::Int: {
        // Text that is not a number reads as 0, the integers' default.
        const qlonglong number = value.toLongLong();
        if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max())
            return defaultFor(row);
        return int(number);
    }
    case Kind::Base64:
        return QString::fromLatin1(value.toByteArray().toBase64());
    }
    return QVariant();
}

// The newest copy of a damaged store kept beside it, or an empty string.
QString keptAside(const QString &path)
{
    const QFileInfo info(path);
    const QStringList kept = info.dir().entryList({info.fileName() + QStringLiteral(".bad-*")},
                                                  QDir::Files | QDir::Hidden, QDir::Name);
    return kept.isEmpty() ? QString() : info.dir().filePath(kept.last());
}

} // namespace

void migrateSettings(QSettings &legacy, JsonSettings &target)
{
    // Checked under the lock: a process starting at the same time may have migrated already.
    target.update([&](QJsonObject &object) {
        const int version = object.value(QStringLiteral("version")).toVariant().toInt();
        if (version != 0)
            return false;
        // A damaged store took its "version" with it, but it was still newer than the
        // legacy settings: bringing those back would undo the user's later choices.
        const QString kept = keptAside(target.path());
        if (!kept.isEmpty()) {
            Log::warning("Legacy settings not migrated, the damaged store was kept as", kept);
            object.insert(QStringLiteral("version"), CurrentVersion);
            return true;
        }
        Log::critical("Migrating settings since version is", version, "but expect version", CurrentVersion);
        for (const Row &row : Rows) {
            const QVariant legacyValue = legacy.value(QLatin1String(row.oldKey), defaultFor(row));
            object.insert(QLatin1String(row.newKey), QJsonValue::fromVariant(convert(legacyValue, row)));
        }
        if (!object.value(QStringLiteral("virtualbox.host_only_interface_name")).toString().isEmpty())
            object.insert(QStringLiteral("hypervisor"), QStringLiteral("virtualbox"));
        object.insert(QStringLiteral("version"), CurrentVersion);
        return true;
    });
}
