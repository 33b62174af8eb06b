// Assembly of the process-wide settings store.
#include "hostdirectories.h"
#include "jsonsettings.h"
#include "multisettings.h"
#include "playerfeaturesconfig.h"
#include "settingsmigration.h"

#include <memory>
#include <mutex>

// The resource lives in a static library, so nothing registers it unless asked.
static void registerSettingsResource()
{
    Q_INIT_RESOURCE(settings);
}

QString builtInSettingsPath()
{
    static std::once_flag registered;
    std::call_once(registered, registerSettingsResource);
    return QStringLiteral(":/settings.json");
}

namespace {

struct SettingsStore
{
    std::unique_ptr<MultiSettings> facade;
    std::unique_ptr<PlayerFeaturesConfig> features;

    SettingsStore()
    {
        const QSet<QString> iniKeys{QStringLiteral("virtualbox.host_only_interface_name")};
        QSharedPointer<QSettings> installPath(new QSettings(
                applicationDirectory() + QStringLiteral("/quorvel.ini"), QSettings::IniFormat));
        QSharedPointer<JsonSettings> user(
                new JsonSettings(homeDirectory() + QStringLiteral("/settings.json"), false));
        QSharedPointer<JsonSettings> defaults(new JsonSettings(builtInSettingsPath(), true));
        facade = std::make_unique<MultiSettings>(defaults, user, installPath, iniKeys);
        features = std::make_unique<PlayerFeaturesConfig>(*facade);

        QSettings legacy(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Lumarik"),
                         QStringLiteral("Quorvel"));
        migrateSettings(legacy, *user);
    }
};

SettingsStore &store()
{
    static SettingsStore instance;
    return instance;
}

} // namespace

MultiSettings *settings()
{
    return store().facade.get();
}

const PlayerFeaturesConfig &playerFeatures()
{
    return *store().features;
}
