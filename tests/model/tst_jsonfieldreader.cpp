#include "jsonfieldreader.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

namespace {

QJsonObject json(const char *text)
{
    return QJsonDocument::fromJson(QByteArray(text)).object();
}

} // namespace

class tst_JsonFieldReader : public QObject
{
    Q_OBJECT
private slots:
    void value_data();
    void value();
    void readInt_data();
    void readInt();
    void typedReadsOfMissingKeysGiveEmptyValues();
    void readStringList();
    void readDateTime_data();
    void readDateTime();
    void readEnum_data();
    void readEnum();
    void derivedReadersShareErrorsAndPrefix();
    void containsAddsNoError();
};

void tst_JsonFieldReader::value_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<int>("expected");
    QTest::addColumn<int>("yieldedType");
    QTest::addColumn<QString>("error");  // empty: none

    const int Undef = QJsonValue::Undefined;
    QTest::newRow("missing") << QByteArray("{}") << int(QJsonValue::String) << Undef
                             << "k is missing.";
    QTest::newRow("null for string") << QByteArray(R"({"k":null})") << int(QJsonValue::String)
                                     << int(QJsonValue::String) << "";
    QTest::newRow("null for number") << QByteArray(R"({"k":null})") << int(QJsonValue::Double)
                                     << Undef << "k is not the right type. Expected 2, got 0";
    QTest::newRow("string for number") << QByteArray(R"({"k":"4"})") << int(QJsonValue::Double)
                                       << Undef << "k is not the right type. Expected 2, got 3";
    QTest::newRow("number for bool") << QByteArray(R"({"k":1})") << int(QJsonValue::Bool) << Undef
                                     << "k is not the right type. Expected 1, got 2";
    QTest::newRow("object for array") << QByteArray(R"({"k":{}})") << int(QJsonValue::Array)
                                      << Undef << "k is not the right type. Expected 4, got 5";
    QTest::newRow("array for object") << QByteArray(R"({"k":[]})") << int(QJsonValue::Object)
                                      << Undef << "k is not the right type. Expected 5, got 4";
    QTest::newRow("bool for string") << QByteArray(R"({"k":true})") << int(QJsonValue::String)
                                     << Undef << "k is not the right type. Expected 3, got 1";
    QTest::newRow("right type") << QByteArray(R"({"k":[1]})") << int(QJsonValue::Array)
                                << int(QJsonValue::Array) << "";
}

void tst_JsonFieldReader::value()
{
    QFETCH(QByteArray, document);
    QFETCH(int, expected);
    QFETCH(int, yieldedType);
    QFETCH(QString, error);

    const JsonFieldReader reader(json(document.constData()));
    QCOMPARE(int(reader.value("k", QJsonValue::Type(expected)).type()), yieldedType);
    QCOMPARE(reader.errors(), error.isEmpty() ? QStringList() : QStringList{error});
    QCOMPARE(reader.hasErrors(), !error.isEmpty());
}

void tst_JsonFieldReader::readInt_data()
{
    QTest::addColumn<QByteArray>("number");
    QTest::addColumn<int>("expected");
    QTest::newRow("plain") << QByteArray("4096") << 4096;
    QTest::newRow("negative") << QByteArray("-7") << -7;
    QTest::newRow("integral double") << QByteArray("8.0") << 8;
    QTest::newRow("fraction") << QByteArray("2048.5") << 0;
    QTest::newRow("int max") << QByteArray("2147483647") << 2147483647;
    QTest::newRow("int min") << QByteArray("-2147483648") << int(-2147483648LL);
    QTest::newRow("2 GiB") << QByteArray("2147483648") << 0;
    QTest::newRow("huge") << QByteArray("1e300") << 0;
    QTest::newRow("tiny") << QByteArray("-1e300") << 0;
}

void tst_JsonFieldReader::readInt()
{
    QFETCH(QByteArray, number);
    QFETCH(int, expected);
    const JsonFieldReader reader(json("{\"n\":" + number + "}"));
    QCOMPARE(reader.readInt("n"), expected);
    QVERIFY(!reader.hasErrors());
}

void tst_JsonFieldReader::typedReadsOfMissingKeysGiveEmptyValues()
{
    const JsonFieldReader reader(json(R"({"s":1,"d":"x","b":null,"l":{},"o":3,"a":true})"));
    QCOMPARE(reader.readString("s"), QString());
    QCOMPARE(reader.readDouble("d"), 0.0);
    QCOMPARE(reader.readBool("b"), false);
    QCOMPARE(reader.readStringList("l"), QStringList());
    QVERIFY(!reader.readDateTime("t").isValid());
    QCOMPARE(reader.readEnum<HwProfile::FormFactor>("e"),
             HwProfile::FormFactor(HwProfile::UnreadableEnum));
    QVERIFY(!reader.readObject("o").contains("anything"));
    QVERIFY(reader.readObjectArray("a").isEmpty());
    QCOMPARE(reader.errors(),
             (QStringList{"s is not the right type. Expected 3, got 2",
                          "d is not the right type. Expected 2, got 3",
                          "b is not the right type. Expected 1, got 0",
                          "l is not the right type. Expected 4, got 5", "t is missing.",
                          "e is missing.", "o is not the right type. Expected 5, got 2",
                          "a is not the right type. Expected 4, got 1"}));

    const JsonFieldReader good(json(R"({"d":6.25,"b":true,"s":"text"})"));
    QCOMPARE(good.readDouble("d"), 6.25);
    QCOMPARE(good.readBool("b"), true);
    QCOMPARE(good.readString("s"), QStringLiteral("text"));
    QVERIFY(!good.hasErrors());
}

void tst_JsonFieldReader::readStringList()
{
    const JsonFieldReader reader(json(R"({"l":["a","",null,"b"]})"));
    QCOMPARE(reader.readStringList("l"), (QStringList{"a", "", "", "b"}));
    QVERIFY(!reader.hasErrors());
}

void tst_JsonFieldReader::readDateTime_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QDateTime>("expected");  // invalid: refused
    QTest::newRow("utc") << "2021-09-14T08:30:00Z"
                         << QDateTime(QDate(2021, 9, 14), QTime(8, 30), Qt::UTC);
    QTest::newRow("offset") << "2021-09-14T10:30:00+02:00"
                            << QDateTime(QDate(2021, 9, 14), QTime(8, 30), Qt::UTC);
    QTest::newRow("milliseconds") << "2021-09-14T08:30:00.250Z"
                                  << QDateTime(QDate(2021, 9, 14), QTime(8, 30, 0, 250), Qt::UTC);
    QTest::newRow("word") << "yesterday" << QDateTime();
    QTest::newRow("empty") << "" << QDateTime();
    QTest::newRow("bad month") << "2021-13-01T00:00:00Z" << QDateTime();
}

void tst_JsonFieldReader::readDateTime()
{
    QFETCH(QString, text);
    QFETCH(QDateTime, expected);
    // Nested, to show the message names the key alone, without the prefix.
    const JsonFieldReader reader(QJsonObject{{"o", QJsonObject{{"build_date", text}}}});
    const JsonFieldReader nested = reader.readObject("o");
    const QDateTime read = nested.readDateTime("build_date");
    QCOMPARE(read.isValid(), expected.isValid());
    if (expected.isValid()) {
        QCOMPARE(read, expected);
        QVERIFY(!reader.hasErrors());
    } else {
        QCOMPARE(reader.errors(),
                 QStringList{"build_date field does not respect datetime ISO format."});
    }
}

void tst_JsonFieldReader::readEnum_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("expected");
    QTest::newRow("PHONE") << "PHONE" << 0;
    QTest::newRow("TV") << "TV" << 4;
    QTest::newRow("lower case") << "phone" << int(HwProfile::UnreadableEnum);
    QTest::newRow("qualified") << "HwProfile::TABLET" << int(HwProfile::UnreadableEnum);
    QTest::newRow("unknown") << "HOLOGRAM" << int(HwProfile::UnreadableEnum);
    QTest::newRow("trailing nul") << QString("CAR") + QChar(0) << int(HwProfile::UnreadableEnum);
    QTest::newRow("empty") << "" << int(HwProfile::UnreadableEnum);
}

void tst_JsonFieldReader::readEnum()
{
    QFETCH(QString, name);
    QFETCH(int, expected);
    const JsonFieldReader reader(QJsonObject{{"e", name}});
    QCOMPARE(int(reader.readEnum<HwProfile::FormFactor>("e")), expected);
    QVERIFY(!reader.hasErrors());  // an unknown name is not an error
}

void tst_JsonFieldReader::derivedReadersShareErrorsAndPrefix()
{
    const JsonFieldReader top(json(R"({"display_settings":{"displays":[{"width":1},{}, 5]}})"));
    const JsonFieldReader settings = top.readObject("display_settings");
    QCOMPARE(settings.prefix(), QStringLiteral("display_settings."));
    const QList<JsonFieldReader> displays = settings.readObjectArray("displays");
    QCOMPARE(displays.size(), 3);
    QCOMPARE(displays.at(0).readInt("width"), 1);
    displays.at(0).readInt("height");
    displays.at(2).readDouble("physical_size");  // an element that is no object reads as {}
    // Nested objects start over from their own key; array elements keep the parent prefix.
    const JsonFieldReader deeper = displays.at(1).readObject("inner");
    deeper.readString("x");
    const QList<JsonFieldReader> topLevel = top.readObjectArray("missing");
    QVERIFY(topLevel.isEmpty());

    const QStringList expected{"display_settings..displays[0].height is missing.",
                               "display_settings..displays[2].physical_size is missing.",
                               "display_settings..displays[1].inner is missing.",
                               "inner.x is missing.", "missing is missing."};
    QCOMPARE(top.errors(), expected);
    QCOMPARE(displays.at(1).errors(), expected);
    QVERIFY(deeper.hasErrors());

    const JsonFieldReader array(json(R"({"a":[{}]})"));
    array.readObjectArray("a").first().readInt("n");
    QCOMPARE(array.errors(), QStringList{".a[0].n is missing."});

    // A new top-level reader starts a list of its own.
    QVERIFY(!JsonFieldReader(QJsonObject()).hasErrors());
}

void tst_JsonFieldReader::containsAddsNoError()
{
    const JsonFieldReader reader(json(R"({"k":null})"));
    QVERIFY(reader.contains("k"));
    QVERIFY(!reader.contains("other"));
    QVERIFY(!reader.hasErrors());
}

QTEST_APPLESS_MAIN(tst_JsonFieldReader)
#include "tst_jsonfieldreader.moc"
