#include "jsonfieldreader.h"

#include <QJsonArray>

#include <climits>
#include <cmath>

JsonFieldReader::JsonFieldReader(const QJsonObject &object)
    : JsonFieldReader(object, QString(), QSharedPointer<QStringList>::create())
{
}

JsonFieldReader::JsonFieldReader(const QJsonObject &object, const QString &prefix,
                                 const QSharedPointer<QStringList> &errors)
    : m_object(object), m_prefix(prefix), m_errors(errors)
{
}

void JsonFieldReader::addError(const QString &error) const
{
    m_errors->append(error);
}

QJsonValue JsonFieldReader::value(const QString &key, QJsonValue::Type expected) const
{
    const auto it = m_object.constFind(key);
    if (it == m_object.constEnd()) {
        addError(m_prefix + key + QLatin1String(" is missing."));
        return QJsonValue(QJsonValue::Undefined);
    }
    const QJsonValue found = it.value();
    // Writers put null for strings they never had; that is not worth refusing a file for.
    if (expected == QJsonValue::String && found.isNull())
        return QJsonValue(QString());
    if (found.type() != expected) {
        addError(QStringLiteral("%1%2 is not the right type. Expected %3, got %4")
                         .arg(m_prefix, key)
                         .arg(int(expected))
                         .arg(int(found.type())));
        return QJsonValue(QJsonValue::Undefined);
    }
    return found;
}

QString JsonFieldReader::readString(const QString &key) const
{
    return value(key, QJsonValue::String).toString();
}

qint32 JsonFieldReader::readInt(const QString &key) const
{
    const QJsonValue found = value(key, QJsonValue::Double);
    if (!found.isDouble())
        return 0;
    // Only numbers that are exactly a 32-bit integer count; 2048.5 or 2^31 read as 0.
    const double number = found.toDouble();
    if (!std::isfinite(number) || number < double(INT_MIN) || number > double(INT_MAX)
        || std::trunc(number) != number)
        return 0;
    return qint32(number);
}

double JsonFieldReader::readDouble(const QString &key) const
{
    return value(key, QJsonValue::Double).toDouble(0.0);
}

bool JsonFieldReader::readBool(const QString &key) const
{
    return value(key, QJsonValue::Bool).toBool(false);
}

QDateTime JsonFieldReader::readDateTime(const QString &key) const
{
    const QJsonValue found = value(key, QJsonValue::String);
    if (!found.isString())
        return QDateTime();
    const QDateTime dateTime = QDateTime::fromString(found.toString(), Qt::ISODate);
    if (!dateTime.isValid()) {
        addError(key + QLatin1String(" field does not respect datetime ISO format."));
        return QDateTime();
    }
    return dateTime;
}

QStringList JsonFieldReader::readStringList(const QString &key) const
{
    QStringList list;
    const QJsonArray array = value(key, QJsonValue::Array).toArray();
    list.reserve(array.size());
    for (const QJsonValue &element : array)
        list.append(element.toString());
    return list;
}

JsonFieldReader JsonFieldReader::readObject(const QString &key) const
{
    return JsonFieldReader(value(key, QJsonValue::Object).toObject(), key + QLatin1Char('.'),
                           m_errors);
}

QList<JsonFieldReader> JsonFieldReader::readObjectArray(const QString &key) const
{
    QList<JsonFieldReader> readers;
    const QJsonArray array = value(key, QJsonValue::Array).toArray();
    readers.reserve(array.size());
    for (int i = 0; i < array.size(); ++i) {
        // The parent's prefix already ends in a point, so nested elements read as
        // "display_settings..displays[0]." in messages; hosts match on that text.
        const QString prefix = QStringLiteral("%1.%2[%3].").arg(m_prefix, key).arg(i);
        readers.append(JsonFieldReader(array.at(i).toObject(), prefix, m_errors));
    }
    return readers;
}

bool JsonFieldReader::contains(const QString &key) const
{
    return m_object.contains(key);
}

bool JsonFieldReader::hasErrors() const
{
    return !m_errors->isEmpty();
}

QStringList JsonFieldReader::errors() const
{
    return *m_errors;
}

qint32 JsonFieldReader::enumValueFromName(const QMetaEnum &meta, const QString &name)
{
    const QByteArray bytes = name.toLatin1();
    for (int i = 0; i < meta.keyCount(); ++i) {
        if (bytes == meta.key(i))
            return meta.value(i);
    }
    return HwProfile::UnreadableEnum;
}

qint32 JsonFieldReader::enumValue(const QMetaEnum &meta, const QString &key) const
{
    const QJsonValue found = value(key, QJsonValue::String);
    if (!found.isString())
        return HwProfile::UnreadableEnum;
    return enumValueFromName(meta, found.toString());
}
