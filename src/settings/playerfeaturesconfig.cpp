#include "playerfeaturesconfig.h"

#include "multisettings.h"

#include <QRegularExpression>

PlayerFeaturesConfig::PlayerFeaturesConfig(const QStringList &fromSettings, const QString &fromEnvironment)
{
    for (const QString &name : fromSettings) {
        const QString flag = name.trimmed().toLower();
        if (!flag.isEmpty())
            m_enabled.insert(flag);
    }
    // The environment comes last, so a developer can flip a flag without editing settings.
    for (const QString &name : parseList(fromEnvironment)) {
        if (name.startsWith(QLatin1Char('-')))
            m_enabled.remove(name.mid(1));
        else
            m_enabled.insert(name.startsWith(QLatin1Char('+')) ? name.mid(1) : name);
    }
    m_enabled.remove(QString());
}

PlayerFeaturesConfig::PlayerFeaturesConfig(const MultiSettings &settings)
    : PlayerFeaturesConfig(settings.value(QStringLiteral("player.feature_flags")).toStringList(),
                           qEnvironmentVariable("QV_FEATURE_FLAGS"))
{
}

bool PlayerFeaturesConfig::isEnabled(const QString &flag) const
{
    return m_enabled.contains(flag.trimmed().toLower());
}

QStringList PlayerFeaturesConfig::enabledFlags() const
{
    QStringList flags = m_enabled.values();
    flags.sort();
    return flags;
}

QStringList PlayerFeaturesConfig::parseList(const QString &text)
{
    static const QRegularExpression separators(QStringLiteral("[,;\\s]+"));
    return text.toLower().split(separators, Qt::SkipEmptyParts);
}
