#pragma once

#include "logcapture.h"
#include "testfiles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

// Case tables kept as JSON arrays under the test data folder: one row per element, named
// by its "name" member, whose single column "c" holds the whole element.
inline void addCaseRows(const QString &file)
{
    QTest::addColumn<QJsonObject>("c");
    const QJsonArray rows = QJsonDocument::fromJson(fileContents(QV_TEST_DATA_DIR "/" + file)).array();
    QVERIFY2(!rows.isEmpty(), qPrintable(file));
    for (const QJsonValue &row : rows)
        QTest::newRow(qPrintable(row[QLatin1String("name")].toString())) << row.toObject();
}

// A case's input object: "input", or the fixture named by "file" with the top-level
// members of "set" replaced and those listed in "remove" taken out.
inline QJsonObject caseInput(const QJsonObject &c, const QString &folder)
{
    QJsonObject in = c[QLatin1String("input")].toObject();
    if (c.contains(QLatin1String("file")))
        in = jsonFileObject(QV_TEST_DATA_DIR "/" + folder + "/" + c[QLatin1String("file")].toString());
    const QJsonObject set = c[QLatin1String("set")].toObject();
    for (auto it = set.begin(); it != set.end(); ++it)
        in.insert(it.key(), it.value());
    for (const QJsonValue &key : c[QLatin1String("remove")].toArray())
        in.remove(key.toString());
    return in;
}

// Captured lines as "level: text", the form the case files list them in.
inline QJsonArray logLines(const LogCapture &log)
{
    return QJsonArray::fromStringList(log.all());
}

// The value with each placeholder (such as "%1") replaced in its text.
inline QJsonValue expand(const QJsonValue &value, const QList<QPair<QString, QString>> &vars)
{
    QString text = QString::fromUtf8(QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact));
    for (const auto &var : vars)
        text.replace(var.first, var.second);
    return QJsonDocument::fromJson(text.toUtf8()).array().first();
}

// Compares as compact JSON text, so a failure prints both sides.
#define QV_COMPARE_JSON(actual, expected)                                                  \
    QCOMPARE(QJsonDocument(actual).toJson(QJsonDocument::Compact),                         \
             QJsonDocument(expected).toJson(QJsonDocument::Compact))

// The row's case, read-only: operator[] on a mutable object would add the keys it asks for.
#define QV_FETCH_CASE const QJsonObject c = *static_cast<QJsonObject *>(QTest::qData("c", qMetaTypeId<QJsonObject>()))
