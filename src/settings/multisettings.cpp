#include "multisettings.h"

#include "logging.h"

MultiSettings::MultiSettings(QSharedPointer<JsonSettings> defaults, QSharedPointer<JsonSettings> user,
                             QSharedPointer<QSettings> installPathSettings, const QSet<QString> &iniKeys,
                             QObject *parent)
    : QObject(parent),
      m_defaults(std::move(defaults)),
      m_user(std::move(user)),
      m_installPathSettings(std::move(installPathSettings)),
      m_iniKeys(iniKeys)
{
    m_installPathSettings->sync();
    if (m_installPathSettings->status() != QSettings::NoError) {
        Log::warning(QStringLiteral("Cannot init install path settings (status=%1) %2")
                             .arg(int(m_installPathSettings->status()))
                             .arg(m_installPathSettings->fileName()));
    }
    for (const QString &key : qAsConst(m_iniKeys))
        reconcile(key);
}

void MultiSettings::reconcile(const QString &key)
{
    // Older hosts read the INI file, newer ones the user store: fill whichever side is
    // missing, and leave both alone when they already agree on presence.
    const QVariant iniValue = m_installPathSettings->value(key);
    const QVariant userValue = m_user->value(key);
    if (iniValue.isValid() && !userValue.isValid())
        m_user->setValue(key, iniValue);
    else if (!iniValue.isValid() && userValue.isValid()) {
        m_installPathSettings->setValue(key, userValue);
        m_installPathSettings->sync();
    }
}

QVariant MultiSettings::value(const QString &key, const QVariant &defaultValue) const
{
    if (m_iniKeys.contains(key))
        return m_installPathSettings->value(key);
    if (m_user->contains(key))
        return m_user->value(key);
    if (m_defaults->contains(key))
        return m_defaults->value(key);
    return defaultValue;
}
