#pragma once

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QStringList>

// Reads one JSON fixture of tests/data/model; an empty object when it cannot be read,
// which the parsers then refuse, so a lost fixture fails the test instead of passing it.
inline QJsonObject modelFixture(const QString &name)
{
    QFile file(QStringLiteral(QV_TEST_DATA_DIR "/model/") + name);
    if (!file.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll()).object();
}

// Sets the value at a path such as "display_settings/displays/0/width"; an undefined
// value removes it instead.
inline QJsonValue editedValue(const QJsonValue &node, QStringList path, const QJsonValue &value)
{
    const QString step = path.takeFirst();
    if (node.isArray()) {
        QJsonArray array = node.toArray();
        const int index = step.toInt();
        if (path.isEmpty() && value.isUndefined())
            array.removeAt(index);
        else
            array[index] = path.isEmpty() ? value : editedValue(array.at(index), path, value);
        return array;
    }
    QJsonObject object = node.toObject();
    if (path.isEmpty() && value.isUndefined())
        object.remove(step);
    else
        object[step] = path.isEmpty() ? value : editedValue(object.value(step), path, value);
    return object;
}

inline QJsonObject edited(const QJsonObject &root, const QString &path, const QJsonValue &value)
{
    return editedValue(root, path.split(QLatin1Char('/')), value).toObject();
}
