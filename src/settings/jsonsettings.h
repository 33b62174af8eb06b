#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>

// One JSON object in one file, keys stored flat ("virtual_devices.directory" is a single
// member). Nothing is cached: every read parses the file again and every write rewrites
// it atomically, so edits by other processes are seen at once. Writes are read-modify-write
// under a lock file beside the file ("<file>.lock"), so concurrent writers lose nothing.
class JsonSettings : public QObject
{
    Q_OBJECT
public:
    JsonSettings(const QString &path, bool readOnly, QObject *parent = nullptr);

    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;
    bool contains(const QString &key) const;

    void setValue(const QString &key, const QVariant &value);
    // Each element but the last names a nested object, created when absent.
    void setValue(const QStringList &keyPath, const QVariant &value);

    // Applies change to the file's object under the lock and saves it when change answers
    // true. A file that is not a JSON object is first moved aside to "<file>.bad-<time>";
    // one that exists but cannot be read is never replaced. Failures are logged.
    void update(const std::function<bool(QJsonObject &)> &change);

    QString path() const { return m_path; }
    bool isReadOnly() const { return m_readOnly; }

private:
    QJsonObject load() const;
    void save(const QJsonObject &object) const;

    QString m_path;
    bool m_readOnly;
};
