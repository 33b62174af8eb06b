#include "jsonsettings.h"
#include "logcapture.h"

#include <QtTest>

namespace {

QByteArray contents(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

QJsonObject objectIn(const QString &path)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(contents(path), &error);
    return error.error == QJsonParseError::NoError ? doc.object() : QJsonObject{{"<invalid>", true}};
}

QString fixture(const QString &name)
{
    return QStringLiteral(QV_TEST_DATA_DIR "/settings/") + name;
}

} // namespace

class tst_JsonSettings : public QObject
{
    Q_OBJECT
private slots:
    void roundTrip_data();
    void roundTrip();
    void writesIndentedAndKeepsOtherKeys();
    void seesEditsByOthers();
    void keyPaths_data();
    void keyPaths();
    void blockedKeyPathLeavesFileUnchanged_data();
    void blockedKeyPathLeavesFileUnchanged();
    void readOnlyNeverWrites();
    void badFileReadsEmptyAndIsReplaced_data();
    void badFileReadsEmptyAndIsReplaced();
    void unwritableLocationIsLogged();
    void concurrentWritersKeepFileParseable();
};

void tst_JsonSettings::roundTrip_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("bool") << QVariant(false) << QVariant(false);
    QTest::newRow("int becomes double") << QVariant(8080) << QVariant(8080.0);
    QTest::newRow("string") << QVariant(QStringLiteral("C:/Users/\u00e9/Quorvel")) << QVariant(QStringLiteral("C:/Users/\u00e9/Quorvel"));
    QTest::newRow("empty string") << QVariant(QString("")) << QVariant(QString(""));
    QTest::newRow("list") << QVariant(QStringList{"a", "b"}) << QVariant(QVariantList{"a", "b"});
    QTest::newRow("map") << QVariant(QVariantMap{{"x", true}}) << QVariant(QVariantMap{{"x", true}});
}

void tst_JsonSettings::roundTrip()
{
    QFETCH(QVariant, value);
    QFETCH(QVariant, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    JsonSettings store(dir.filePath("settings.json"), false);
    QVERIFY(!store.contains("proxy.port"));
    store.setValue(QStringLiteral("proxy.port"), value);
    QVERIFY(store.contains("proxy.port"));
    QCOMPARE(store.value("proxy.port"), expected);
    // A second object over the same file sees it: nothing lives only in memory.
    QCOMPARE(JsonSettings(dir.filePath("settings.json"), true).value("proxy.port"), expected);
}

void tst_JsonSettings::writesIndentedAndKeepsOtherKeys()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    JsonSettings store(dir.filePath("settings.json"), false);
    store.setValue(QStringLiteral("virtual_devices.directory"), QStringLiteral("/d"));
    store.setValue(QStringLiteral("stats.enabled"), true);
    QCOMPARE(contents(store.path()),
             QByteArray("{\n    \"stats.enabled\": true,\n    \"virtual_devices.directory\": \"/d\"\n}\n"));
    QCOMPARE(store.value("missing", 7), QVariant(7));
}

void tst_JsonSettings::seesEditsByOthers()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    JsonSettings store(dir.filePath("settings.json"), false);
    store.setValue(QStringLiteral("a"), 1);
    QVERIFY(writeFile(store.path(), "{\"b\": 2}"));
    QVERIFY(!store.contains("a"));
    QCOMPARE(store.value("b").toInt(), 2);
    store.setValue(QStringLiteral("c"), 3);
    QCOMPARE(objectIn(store.path()), QJsonObject({{"b", 2}, {"c", 3}}));
}

void tst_JsonSettings::keyPaths_data()
{
    QTest::addColumn<QByteArray>("initial");
    QTest::addColumn<QStringList>("keyPath");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("flat key with dots") << QByteArray("{}") << QStringList{"a.b"}
                                        << QByteArray(R"({"a.b":1})");
    QTest::newRow("creates nested objects") << QByteArray("{}") << QStringList{"a", "b", "c"}
                                            << QByteArray(R"({"a":{"b":{"c":1}}})");
    QTest::newRow("keeps siblings") << QByteArray(R"({"a":{"x":true,"b":{"y":"z"}}})") << QStringList{"a", "b", "c"}
                                    << QByteArray(R"({"a":{"b":{"c":1,"y":"z"},"x":true}})");
    QTest::newRow("replaces a leaf of any type") << QByteArray(R"({"a":{"b":[1]}})") << QStringList{"a", "b"}
                                                 << QByteArray(R"({"a":{"b":1}})");
}

void tst_JsonSettings::keyPaths()
{
    QFETCH(QByteArray, initial);
    QFETCH(QStringList, keyPath);
    QFETCH(QByteArray, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    JsonSettings store(dir.filePath("settings.json"), false);
    QVERIFY(writeFile(store.path(), initial));
    LogCapture log;
    store.setValue(keyPath, 1);
    QCOMPARE(objectIn(store.path()), QJsonDocument::fromJson(expected).object());
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_JsonSettings::blockedKeyPathLeavesFileUnchanged_data()
{
    QTest::addColumn<QByteArray>("initial");
    QTest::addColumn<QStringList>("keyPath");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("warning");

    QTest::newRow("string on the way") << QByteArray(R"({"proxy": "socks5"})") << QStringList{"proxy", "host"}
                                       << QVariant("h") << "Cannot update proxy/host to h";
    QTest::newRow("array deeper") << QByteArray(R"({"a": {"b": [1]}})") << QStringList{"a", "b", "c"}
                                  << QVariant(5) << "Cannot update a/b/c to 5";
    QTest::newRow("null on the way") << QByteArray(R"({"a": null})") << QStringList{"a", "b"}
                                     << QVariant(true) << "Cannot update a/b to true";
    QTest::newRow("list value shown as JSON") << QByteArray(R"({"a": 1})") << QStringList{"a", "b"}
                                              << QVariant(QStringList{"x"}) << "Cannot update a/b to [\"x\"]";
}

void tst_JsonSettings::blockedKeyPathLeavesFileUnchanged()
{
    QFETCH(QByteArray, initial);
    QFETCH(QStringList, keyPath);
    QFETCH(QVariant, value);
    QFETCH(QString, warning);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    JsonSettings store(dir.filePath("settings.json"), false);
    QVERIFY(writeFile(store.path(), initial));
    LogCapture log;
    store.setValue(keyPath, value);
    QCOMPARE(contents(store.path()), initial);
    QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
}

void tst_JsonSettings::readOnlyNeverWrites()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("defaults.json");
    JsonSettings missing(path, true);
    missing.setValue(QStringLiteral("a"), 1);
    missing.setValue(QStringList{"b", "c"}, 1);
    QVERIFY(!QFileInfo::exists(path));

    QVERIFY(writeFile(path, "{\"a\": 0}"));
    JsonSettings existing(path, true);
    QVERIFY(existing.isReadOnly());
    existing.setValue(QStringLiteral("a"), 1);
    QCOMPARE(contents(path), QByteArray("{\"a\": 0}"));
    QCOMPARE(existing.value("a").toInt(), 0);
}

void tst_JsonSettings::badFileReadsEmptyAndIsReplaced_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("presentKey");  // a key the damaged text seems to hold

    QTest::newRow("array") << fixture("array.json") << "stats.enabled";
    QTest::newRow("scalar") << fixture("scalar.json") << "42";
    QTest::newRow("invalid UTF-8") << fixture("invalid-utf8.json") << "screencast.directory";
    QTest::newRow("truncated object") << fixture("truncated.json") << "stats.enabled";
    QTest::newRow("empty file") << QString() << "";
}

void tst_JsonSettings::badFileReadsEmptyAndIsReplaced()
{
    QFETCH(QString, source);
    QFETCH(QString, presentKey);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("settings.json");
    if (source.isEmpty())
        QVERIFY(writeFile(path, ""));
    else
        QVERIFY(QFile::copy(source, path));

    JsonSettings store(path, false);
    QVERIFY(!store.contains(presentKey));
    QCOMPARE(store.value(presentKey, "fallback"), QVariant("fallback"));
    store.setValue(QStringLiteral("quickboot.enabled"), false);
    QCOMPARE(objectIn(path), QJsonObject({{"quickboot.enabled", false}}));
}

void tst_JsonSettings::unwritableLocationIsLogged()
{
    // A plain file where the directory should be: no user, root included, can write there.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(writeFile(dir.filePath("blocker"), "x"));
    const QString path = dir.filePath("blocker/settings.json");
    JsonSettings store(path, false);
    LogCapture log;
    store.setValue(QStringLiteral("a"), 1);
    QVERIFY(!store.contains("a"));
    QVERIFY2(log.contains(QtWarningMsg, "Failed to open file for writing: " + path), qPrintable(log.dump()));
}

void tst_JsonSettings::concurrentWritersKeepFileParseable()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("settings.json");
    const int count = 300;
    QProcess first, second;
    first.start(SETTINGSWRITER, {path, "first", QString::number(count)});
    second.start(SETTINGSWRITER, {path, "second", QString::number(count)});
    const bool firstDone = first.waitForFinished(60000);
    const bool secondDone = second.waitForFinished(60000);
    if (!firstDone || !secondDone) {
        first.kill();
        second.kill();
        first.waitForFinished(5000);
        second.waitForFinished(5000);
        QFAIL("writers did not finish in time");
    }
    QCOMPARE(first.exitStatus(), QProcess::NormalExit);
    QVERIFY2(first.exitCode() == 0, first.readAllStandardError().constData());
    QCOMPARE(second.exitStatus(), QProcess::NormalExit);
    QVERIFY2(second.exitCode() == 0, second.readAllStandardError().constData());

    // One of two racing updates may be lost, but the file always holds a whole object.
    const QJsonObject object = objectIn(path);
    QVERIFY(!object.contains("<invalid>"));
    QVERIFY(!object.isEmpty());
    for (auto it = object.begin(); it != object.end(); ++it) {
        QVERIFY2(it.key() == "first" || it.key() == "second", qPrintable(it.key()));
        QVERIFY(it.value().isDouble());
        QVERIFY(it.value().toInt() >= 0 && it.value().toInt() < count);
    }
    QVERIFY(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden) == QStringList{"settings.json"});
}

QTEST_GUILESS_MAIN(tst_JsonSettings)
#include "tst_jsonsettings.moc"
