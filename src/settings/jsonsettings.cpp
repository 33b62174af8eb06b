#include "jsonsettings.h"

#include "fileutils.h"
#include "logging.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QLockFile>
#include <QMutex>
#include <QSaveFile>

namespace {

// A write holds the lock for milliseconds; a holder that died is detected at once.
const int LockTimeoutMs = 10000;

// Sets keyPath[index..] inside object; false when a member on the way is not an object.
bool setMember(QJsonObject &object, const QStringList &keyPath, int index, const QJsonValue &value)
{
    const QString &key = keyPath.at(index);
    if (index == keyPath.size() - 1) {
        object.insert(key, value);
        return true;
    }
    const QJsonValue member = object.value(key);
    if (!member.isUndefined() && !member.isObject())
        return false;
    QJsonObject child = member.toObject();
    if (!setMember(child, keyPath, index + 1, value))
        return false;
    object.insert(key, child);
    return true;
}

QString valueText(const QJsonValue &value)
{
    if (value.isString())
        return value.toString();
    // Wrapping in an array gives compact JSON text for scalars as well.
    const QByteArray json = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(json.mid(1, json.size() - 2));
}

// Keeps a damaged file under a name that sorts by time, so starting afresh loses nothing
// the user could still recover.
bool setAside(const QString &path)
{
    const QString stem = path + QStringLiteral(".bad-")
            + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString kept = stem;
    for (int n = 2; QFileInfo::exists(kept) && n < 100; ++n)
        kept = stem + QLatin1Char('-') + QString::number(n);
    if (!QFile::rename(path, kept)) {
        Log::warning("Cannot move damaged", path, "to", kept);
        return false;
    }
    Log::warning("Moved damaged", path, "to", kept);
    return true;
}

} // namespace

JsonSettings::JsonSettings(const QString &path, bool readOnly, QObject *parent)
    : QObject(parent), m_path(path), m_readOnly(readOnly)
{
}

QVariant JsonSettings::value(const QString &key, const QVariant &defaultValue) const
{
    const QJsonObject object = load();
    const auto it = object.constFind(key);
    return it == object.constEnd() ? defaultValue : it.value().toVariant();
}

bool JsonSettings::contains(const QString &key) const
{
    return load().contains(key);
}

void JsonSettings::setValue(const QString &key, const QVariant &value)
{
    setValue(QStringList{key}, value);
}

void JsonSettings::setValue(const QStringList &keyPath, const QVariant &value)
{
    if (keyPath.isEmpty())
        return;
    const QJsonValue json = QJsonValue::fromVariant(value);
    update([&](QJsonObject &object) {
        if (setMember(object, keyPath, 0, json))
            return true;
        Log::warning("Cannot update", keyPath.join(QLatin1Char('/')), "to", valueText(json));
        return false;
    });
}

void JsonSettings::update(const std::function<bool(QJsonObject &)> &change)
{
    if (m_readOnly)
        return;
    // Threads queue here: the lock file would make them poll, as it does other processes.
    static QMutex threads;
    const QMutexLocker queued(&threads);
    const QString lockPath = m_path + QStringLiteral(".lock");
    QLockFile lock(lockPath);
    // Only a live holder past the limit stops the write. Any other lock error means the folder
    // takes no files at all; the save says why.
    lock.tryLock(LockTimeoutMs);
    if (lock.error() == QLockFile::LockFailedError) {
        Log::warning("Timed out waiting for", lockPath);
        return;
    }
    const JsonReadResult read = readJsonFile(m_path);
    if (read.status == 1 && QFileInfo::exists(m_path)) {
        Log::warning("Not writing", m_path, "which exists but cannot be read");
        return;
    }
    if (read.status == 2 || (read.status == 0 && !read.document.isObject())) {
        if (!setAside(m_path))
            return;
    }
    QJsonObject object = read.document.object();
    if (change(object))
        save(object);
}

QJsonObject JsonSettings::load() const
{
    // Anything but a readable JSON object (missing file, bad text, an array) reads as empty.
    return readJsonFile(m_path).document.object();
}

void JsonSettings::save(const QJsonObject &object) const
{
    QSaveFile file(m_path);
    if (!file.open(QIODevice::WriteOnly)) {
        Log::warning("Failed to open file for writing:", m_path);
        return;
    }
    // As in writeFileAtomically: a short write or a failed flush must not be committed.
    const QByteArray data = QJsonDocument(object).toJson(QJsonDocument::Indented);
    if (file.write(data) != data.size() || !file.flush() || !file.commit())
        Log::warning("Failed to write", m_path, file.errorString());
}
