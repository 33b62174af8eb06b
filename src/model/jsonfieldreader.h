#pragma once

#include "hwprofile.h"

#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QMetaEnum>
#include <QSharedPointer>
#include <QString>
#include <QStringList>

// Typed, error-collecting access to one JSON object of a description file. Readers made
// for nested objects and array elements share their parent's error list, so one list
// gathers every fault of a document and the caller decides once whether to accept it.
class JsonFieldReader
{
public:
    explicit JsonFieldReader(const QJsonObject &object);

    // The raw lookup under every typed read: records a missing key or a wrong type
    // (codes as in QJsonValue::Type) and then yields an undefined value.
    QJsonValue value(const QString &key, QJsonValue::Type expected) const;

    QString readString(const QString &key) const;
    qint32 readInt(const QString &key) const;
    double readDouble(const QString &key) const;
    bool readBool(const QString &key) const;
    QDateTime readDateTime(const QString &key) const;
    QStringList readStringList(const QString &key) const;
    JsonFieldReader readObject(const QString &key) const;
    QList<JsonFieldReader> readObjectArray(const QString &key) const;
    template<typename E>
    E readEnum(const QString &key) const
    {
        return E(enumValue(QMetaEnum::fromType<E>(), key));
    }
    bool contains(const QString &key) const;

    bool hasErrors() const;
    QStringList errors() const;

    QString prefix() const { return m_prefix; }

    // Exact, case-sensitive lookup among the enumeration's names; UnreadableEnum otherwise.
    static qint32 enumValueFromName(const QMetaEnum &meta, const QString &name);
    // The name written for a value; empty for UnreadableEnum, which then reads back as such.
    template<typename E>
    static QString enumName(E value)
    {
        return QString::fromLatin1(QMetaEnum::fromType<E>().valueToKey(int(value)));
    }

private:
    JsonFieldReader(const QJsonObject &object, const QString &prefix,
                    const QSharedPointer<QStringList> &errors);

    qint32 enumValue(const QMetaEnum &meta, const QString &key) const;
    void addError(const QString &error) const;

    QJsonObject m_object;
    QString m_prefix;
    QSharedPointer<QStringList> m_errors;
};
