#include "jsonsettings.h"

#include "fileutils.h"
#include "logging.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QSaveFile>

namespace {

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
    if (m_readOnly || keyPath.isEmpty())
        return;
    const QJsonValue json = QJsonValue::fromVariant(value);
    QJsonObject object = load();
    if (!setMember(object, keyPath, 0, json)) {
        Log::warning("Cannot update", keyPath.join(QLatin1Char('/')), "to", valueText(json));
        return;
    }
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
    file.write(QJsonDocument(object).toJson(QJsonDocument::Indented));
    if (!file.commit())
        Log::warning("Failed to write", m_path, file.errorString());
}
