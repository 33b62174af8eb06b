#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

class MultiSettings;

// The player's feature flags: the names listed under the setting "player.feature_flags"
// and in the environment variable QV_FEATURE_FLAGS (names separated by commas,
// semicolons or white space). In the variable, "-name" turns off a flag that the
// settings turned on. Names are compared without regard to case.
class PlayerFeaturesConfig
{
public:
    PlayerFeaturesConfig(const QStringList &fromSettings, const QString &fromEnvironment);
    // Reads the setting through the facade and QV_FEATURE_FLAGS from the environment.
    explicit PlayerFeaturesConfig(const MultiSettings &settings);

    bool isEnabled(const QString &flag) const;
    QStringList enabledFlags() const;  // sorted

    static QStringList parseList(const QString &text);

private:
    QSet<QString> m_enabled;
};

// The configuration built when the process-wide settings store is assembled.
const PlayerFeaturesConfig &playerFeatures();
