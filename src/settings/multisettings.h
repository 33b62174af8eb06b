#pragma once

#include "jsonsettings.h"

#include <QObject>
#include <QSet>
#include <QSettings>
#include <QSharedPointer>
#include <QString>
#include <QVariant>

// Reads across the layers of the settings store: keys of the INI key set come from the
// install-path INI file only, every other key from the user's file, then the built-in
// defaults, then the caller's default.
class MultiSettings : public QObject
{
    Q_OBJECT
public:
    // Syncs the INI file and reconciles each INI key with the user store.
    MultiSettings(QSharedPointer<JsonSettings> defaults, QSharedPointer<JsonSettings> user,
                  QSharedPointer<QSettings> installPathSettings, const QSet<QString> &iniKeys,
                  QObject *parent = nullptr);

    // An INI key missing from the INI file answers an invalid QVariant: the caller's
    // default is not applied on that path.
    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;

    QSharedPointer<JsonSettings> defaultSettings() const { return m_defaults; }
    QSharedPointer<JsonSettings> userSettings() const { return m_user; }
    QSharedPointer<QSettings> installPathSettings() const { return m_installPathSettings; }
    QSet<QString> iniKeys() const { return m_iniKeys; }

private:
    void reconcile(const QString &key);

    QSharedPointer<JsonSettings> m_defaults;
    QSharedPointer<JsonSettings> m_user;
    QSharedPointer<QSettings> m_installPathSettings;
    QSet<QString> m_iniKeys;
};

// The process-wide store, assembled on first use (thread-safe) with the install-path
// file beside the application, the user's "settings.json" in the home directory and the
// built-in defaults; the assembly also carries the legacy native settings over once.
MultiSettings *settings();

// Path of the built-in defaults; registers the resource compiled into the library.
QString builtInSettingsPath();
