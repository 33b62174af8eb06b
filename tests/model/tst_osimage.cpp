#include "logcapture.h"
#include "modelfixtures.h"
#include "osimage.h"

#include <QtTest>

namespace {

const QJsonValue Remove(QJsonValue::Undefined);

} // namespace

class tst_OsImage : public QObject
{
    Q_OBJECT
private slots:
    void readsFixtures();
    void versionGate_data();
    void versionGate();
    void faultyFields_data();
    void faultyFields();
    void onlyFirstErrorIsLogged();
    void imageSizeIsReadAs32Bits_data();
    void imageSizeIsReadAs32Bits();
    void vendorAddress_data();
    void vendorAddress();
    void serialize();
    void roundTrip_data();
    void roundTrip();
    void migrate_data();
    void migrate();
    void badInput_data();
    void badInput();
};

void tst_OsImage::readsFixtures()
{
    LogCapture log;
    const OsImage vendor = parseOsImage(modelFixture("osimage_vendor.json"));
    QCOMPARE(vendor.name, QStringLiteral("Android 11.0"));
    QCOMPARE(vendor.buildDate, QDateTime(QDate(2021, 9, 14), QTime(8, 30), Qt::UTC));
    QCOMPARE(vendor.supportedFormFactors,
             (QList<HwProfile::FormFactor>{HwProfile::FormFactor::PHONE,
                                           HwProfile::FormFactor::TABLET}));
    QCOMPARE(vendor.osVersion, parseVersion("11.0.0"));
    QCOMPARE(vendor.sdkVersion, 30);
    QCOMPARE(vendor.imageVersion, parseVersion("3.2.1-rc2"));
    QCOMPARE(vendor.arch, QStringLiteral("x86_64"));
    QCOMPARE(vendor.imageUri, QStringLiteral("{{VENDOR}}/dists/11.0/ova/image.ova"));
    QCOMPARE(vendor.imageSizeBytes, 1073741824);
    QCOMPARE(vendor.version, parseVersion("1.1.0"));
    QVERIFY(!vendor.isBeta);

    // 1.0.0 needs no "arch"; an unknown form factor is skipped without complaint.
    const OsImage old = parseOsImage(modelFixture("osimage_v100.json"));
    QCOMPARE(old.version, parseVersion("1.0.0"));
    QCOMPARE(old.arch, QString());
    QCOMPARE(old.imageUri, QStringLiteral("https://images.example.org/android10.ova"));

    const OsImage user = parseOsImage(modelFixture("osimage_user.json"));
    QCOMPARE(user.source, HwProfile::Source::USER);
    QCOMPARE(user.supportedFormFactors,
             (QList<HwProfile::FormFactor>{HwProfile::FormFactor::WATCH,
                                           HwProfile::FormFactor::CAR, HwProfile::FormFactor::TV}));
    QCOMPARE(user.buildDate, QDateTime(QDate(2022, 1, 31), QTime(22, 59, 59, 250), Qt::UTC));
    QVERIFY(user.isBeta);
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_OsImage::versionGate_data()
{
    QTest::addColumn<QJsonValue>("version");
    QTest::addColumn<QString>("warning");
    QTest::newRow("1.5.0") << QJsonValue("1.5.0") << "";
    QTest::newRow("2.0.0") << QJsonValue("2.0.0")
                           << "Unsupported os image: version= 2.0.0 , expected 1.1.0";
    QTest::newRow("missing") << Remove << "Unsupported os image: version= 0.0.0 , expected 1.1.0";
    QTest::newRow("object") << QJsonValue(QJsonObject())
                            << "Unsupported os image: version= 0.0.0 , expected 1.1.0";
}

void tst_OsImage::versionGate()
{
    QFETCH(QJsonValue, version);
    QFETCH(QString, warning);
    LogCapture log;
    const OsImage image = parseOsImage(edited(modelFixture("osimage_vendor.json"), "version", version));
    if (warning.isEmpty()) {
        QCOMPARE(image.version, parseVersion(version.toString()));
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    } else {
        QCOMPARE(image, OsImage());
        QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
    }
}

void tst_OsImage::faultyFields_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("firstError");

    QTest::newRow("1.1.0 without arch") << "osimage_vendor.json" << "arch" << Remove
                                        << "arch is missing.";
    QTest::newRow("1.0.0 with arch of wrong type") << "osimage_v100.json" << "arch" << QJsonValue(64)
                                                   << "arch is not the right type. Expected 3, got 2";
    QTest::newRow("date in words") << "osimage_vendor.json" << "build_date" << QJsonValue("yesterday")
                                   << "build_date field does not respect datetime ISO format.";
    QTest::newRow("no sdk_version") << "osimage_vendor.json" << "os_version/sdk_version" << Remove
                                    << "os_version.sdk_version is missing.";
    QTest::newRow("android version flat") << "osimage_vendor.json" << "os_version"
                                          << QJsonValue("11.0.0")
                                          << "os_version is not the right type. Expected 5, got 3";
    QTest::newRow("form factors as text") << "osimage_vendor.json" << "supported_form_factors"
                                          << QJsonValue("PHONE")
                                          << "supported_form_factors is not the right type. Expected 4, got 3";
    QTest::newRow("beta as text") << "osimage_user.json" << "is_beta" << QJsonValue("yes")
                                  << "is_beta is not the right type. Expected 1, got 3";
}

void tst_OsImage::faultyFields()
{
    QFETCH(QString, fixture);
    QFETCH(QString, path);
    QFETCH(QJsonValue, value);
    QFETCH(QString, firstError);
    const QJsonObject o = edited(modelFixture(fixture), path, value);
    LogCapture log;
    QCOMPARE(parseOsImage(o), OsImage());
    const QString json = QString::fromUtf8(QJsonDocument(o).toJson(QJsonDocument::Indented)).chopped(1);
    QCOMPARE(log.lines(QtWarningMsg), (QStringList{json, "Error in field " + firstError}));
}

void tst_OsImage::onlyFirstErrorIsLogged()
{
    QJsonObject o = modelFixture("osimage_user.json");
    o = edited(o, "name", Remove);
    o = edited(o, "uuid", Remove);
    o = edited(o, "image_hash", 1);
    LogCapture log;
    QCOMPARE(parseOsImage(o), OsImage());
    const QStringList warnings = log.lines(QtWarningMsg);
    QCOMPARE(warnings.size(), 2);
    QVERIFY(warnings.first().startsWith("{\n    \"arch\": \"x86\","));
    QCOMPARE(warnings.last(), QStringLiteral("Error in field name is missing."));
}

void tst_OsImage::imageSizeIsReadAs32Bits_data()
{
    QTest::addColumn<double>("size");
    QTest::addColumn<qint64>("read");
    QTest::newRow("just under 2 GiB") << 2147483647.0 << qint64(2147483647);
    QTest::newRow("2 GiB") << 2147483648.0 << qint64(0);
    QTest::newRow("4 GiB") << 4294967296.0 << qint64(0);
    QTest::newRow("fraction") << 1024.5 << qint64(0);
}

void tst_OsImage::imageSizeIsReadAs32Bits()
{
    QFETCH(double, size);
    QFETCH(qint64, read);
    const OsImage image =
            parseOsImage(edited(modelFixture("osimage_vendor.json"), "image_size_bytes", size));
    QVERIFY(!image.uuid.isEmpty());
    QCOMPARE(image.imageSizeBytes, read);

    // Written in full, so a large size survives in the file but not a read of it.
    OsImage big = image;
    big.imageSizeBytes = 5368709120LL;
    const QJsonObject written = serializeOsImage(big);
    QCOMPARE(written.value("image_size_bytes").toVariant().toLongLong(), 5368709120LL);
    QCOMPARE(parseOsImage(written).imageSizeBytes, 0);
}

void tst_OsImage::vendorAddress_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("androidVersion");
    QTest::addColumn<QString>("uri");
    QTest::addColumn<QString>("expected");
    QTest::newRow("android 11") << "VENDOR" << "11.0.0" << "image.ova"
                                << "{{VENDOR}}/dists/11.0/ova/image.ova";
    QTest::newRow("android 8 short form") << "VENDOR" << "8.1.0" << "a.ova"
                                          << "{{VENDOR}}/dists/8.1/ova/a.ova";
    QTest::newRow("android 7.1 full form") << "VENDOR" << "7.1.0" << "image.ova"
                                           << "{{VENDOR}}/dists/7.1.0/ova/image.ova";
    QTest::newRow("pre-release below 8") << "VENDOR" << "8.0.0-beta1" << "b.ova"
                                         << "{{VENDOR}}/dists/8.0.0-beta1/ova/b.ova";
    QTest::newRow("https kept") << "VENDOR" << "11.0.0" << "https://host/x.ova" << "https://host/x.ova";
    QTest::newRow("http kept") << "VENDOR" << "11.0.0" << "http://host/x.ova" << "http://host/x.ova";
    QTest::newRow("file kept") << "VENDOR" << "11.0.0" << "file:///srv/x.ova" << "file:///srv/x.ova";
    QTest::newRow("placeholder kept") << "VENDOR" << "11.0.0" << "{{VENDOR}}/custom/x.ova"
                                      << "{{VENDOR}}/custom/x.ova";
    QTest::newRow("placeholder is case-sensitive") << "VENDOR" << "11.0.0" << "{{vendor}}/x.ova"
                                                   << "{{VENDOR}}/dists/11.0/ova/{{vendor}}/x.ova";
    QTest::newRow("other scheme") << "VENDOR" << "11.0.0" << "ftp://host/x.ova"
                                  << "{{VENDOR}}/dists/11.0/ova/ftp://host/x.ova";
    QTest::newRow("user kept") << "USER" << "11.0.0" << "image.ova" << "image.ova";
    QTest::newRow("shared kept") << "SHARED" << "11.0.0" << "image.ova" << "image.ova";
}

void tst_OsImage::vendorAddress()
{
    QFETCH(QString, source);
    QFETCH(QString, androidVersion);
    QFETCH(QString, uri);
    QFETCH(QString, expected);
    QJsonObject o = modelFixture("osimage_vendor.json");
    o = edited(o, "source", source);
    o = edited(o, "os_version/os_version", androidVersion);
    o = edited(o, "image_uri", uri);
    const OsImage image = parseOsImage(o);
    QCOMPARE(image.imageUri, expected);
    // A second pass leaves a rewritten address alone.
    QCOMPARE(parseOsImage(serializeOsImage(image)).imageUri, expected);
}

void tst_OsImage::serialize()
{
    OsImage image = parseOsImage(modelFixture("osimage_v100.json"));
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE, HwProfile::FormFactor::TV};
    const QJsonObject o = serializeOsImage(image);
    QCOMPARE(o.value("version").toString(), QStringLiteral("1.1.0"));
    QCOMPARE(o.value("source").toString(), QStringLiteral("VENDOR"));
    QCOMPARE(o.value("supported_form_factors").toArray(), (QJsonArray{"PHONE", "TV"}));
    QCOMPARE(o.value("image_version").toString(), QStringLiteral("2.0.0"));
    QCOMPARE(o.value("build_date").toString(), QStringLiteral("2020-05-02T12:00:00Z"));
    QCOMPARE(o.value("is_beta"), QJsonValue(false));
    QCOMPARE(o.value("os_version").toObject(),
             (QJsonObject{{"uuid", ""}, {"name", ""}, {"os_type", ""}, {"code_name", ""},
                          {"build_date", ""}, {"os_version", "10.0.0"}, {"sdk_version", 29}}));
    QCOMPARE(o.keys(), (QStringList{"arch", "build_date", "image_hash", "image_size_bytes",
                                    "image_uri", "image_version", "is_beta", "name", "os_version",
                                    "source", "supported_form_factors", "uuid", "version"}));
}

void tst_OsImage::roundTrip_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::newRow("vendor") << "osimage_vendor.json";
    QTest::newRow("user, milliseconds") << "osimage_user.json";
}

void tst_OsImage::roundTrip()
{
    QFETCH(QString, fixture);
    const OsImage first = parseOsImage(modelFixture(fixture));
    QVERIFY(!first.uuid.isEmpty());
    const QByteArray text = QJsonDocument(serializeOsImage(first)).toJson();
    QCOMPARE(parseOsImage(QJsonDocument::fromJson(text).object()), first);
}

void tst_OsImage::migrate_data()
{
    QTest::addColumn<QString>("formatVersion");
    QTest::addColumn<QString>("androidVersion");
    QTest::addColumn<QString>("arch");
    QTest::addColumn<bool>("changed");
    QTest::addColumn<QString>("expectedArch");
    QTest::newRow("android 10") << "1.0.0" << "10.0.0" << "" << true << "x86";
    QTest::newRow("android 11") << "1.0.0" << "11.0.0" << "" << true << "x86_64";
    QTest::newRow("android 11 beta") << "1.0.0" << "11.0.0-beta1" << "" << true << "x86";
    QTest::newRow("arch kept") << "1.0.0" << "12.0.0" << "x86" << true << "x86";
    QTest::newRow("already 1.1.0") << "1.1.0" << "11.0.0" << "" << false << "";
    QTest::newRow("1.0.0-rc1 is not 1.0.0") << "1.0.0-rc1" << "11.0.0" << "" << false << "";
    QTest::newRow("1.0.0.1 is not 1.0.0") << "1.0.0.1" << "11.0.0" << "" << false << "";
}

void tst_OsImage::migrate()
{
    QFETCH(QString, formatVersion);
    QFETCH(QString, androidVersion);
    QFETCH(QString, arch);
    QFETCH(bool, changed);
    QFETCH(QString, expectedArch);
    OsImage image;
    image.name = QStringLiteral("Android");
    image.version = parseVersion(formatVersion);
    image.osVersion = parseVersion(androidVersion);
    image.arch = arch;
    LogCapture log;
    QCOMPARE(migrateOsImage(QStringLiteral("Pixel A"), image), changed);
    QCOMPARE(image.arch, expectedArch);
    QCOMPARE(image.version, parseVersion(changed ? "1.1.0" : formatVersion));
    const QString line = QStringLiteral("Migrating OsImage Android of device Pixel A from 1.0.0 to 1.1.0");
    QCOMPARE(log.contains(QtDebugMsg, line), changed);
}

void tst_OsImage::badInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    static const char garbage[] = "\x00\x01\x02 not json";
    QTest::newRow("garbage") << QByteArray(garbage, sizeof garbage - 1);
    QTest::newRow("all wrong types") << QByteArray(
            R"({"version":"1.1.0","name":1,"uuid":[],"build_date":5,"source":{},"os_version":[],"image_version":null,"arch":true})");
    QTest::newRow("all null") << QByteArray(
            R"({"version":null,"name":null})");
    QTest::newRow("huge numbers") << QByteArray(
            R"({"version":"1.1.0","os_version":{"os_version":"1e999","sdk_version":1e400},"image_size_bytes":-0.0000001})");
    QByteArray deep(100000, '{');
    QTest::newRow("deeply nested") << QByteArray(R"({"version":"1.1.0","os_version":)") + deep;
    QTest::newRow("not utf-8") << QByteArray("{\"version\":\"1.1\xc3\x28.0\",\"name\":\"\xed\xa0\x80\"}");
}

void tst_OsImage::badInput()
{
    QFETCH(QByteArray, bytes);
    LogCapture log;
    QCOMPARE(parseOsImage(QJsonDocument::fromJson(bytes).object()), OsImage());
    QVERIFY(!log.lines(QtWarningMsg).isEmpty());
}

QTEST_APPLESS_MAIN(tst_OsImage)
#include "tst_osimage.moc"
