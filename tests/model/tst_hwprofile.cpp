#include "hwprofile.h"
#include "logcapture.h"
#include "modelfixtures.h"

#include <QElapsedTimer>
#include <QMetaProperty>
#include <QtTest>

namespace {

const QJsonValue Remove(QJsonValue::Undefined);

QJsonArray screens(int count)
{
    QJsonArray array;
    for (int i = 0; i < count; ++i)
        array.append(QJsonObject{{"width", 100 + i}, {"height", 200}, {"density", 160},
                                 {"physical_size", 5.5}});
    return array;
}

} // namespace

class tst_HwProfile : public QObject
{
    Q_OBJECT
private slots:
    void defaults();
    void readsFixtures();
    void versionGate_data();
    void versionGate();
    void faultyFields_data();
    void faultyFields();
    void screenCount_data();
    void screenCount();
    void lenientReads();
    void serializeWritesAllKeys();
    void roundTrip_data();
    void roundTrip();
    void reflectedProperties();
    void badInput_data();
    void badInput();
    void largeDocument();
};

void tst_HwProfile::defaults()
{
    const HwProfile p;
    QVERIFY(!p.isValid());
    QCOMPARE(p.vmHeapSize, 256);
    QCOMPARE(p.displays.size(), 1);
    QCOMPARE(p.displays.first(), (HwDisplay{1280, 768, 120, 9.0, 0, 0, 0}));
    QVERIFY(!p.hasSdCard());
}

void tst_HwProfile::readsFixtures()
{
    LogCapture log;
    const HwProfile phone = parseHwProfile(modelFixture("hwprofile_phone.json"));
    QVERIFY2(phone.isValid(), qPrintable(log.dump()));
    QCOMPARE(phone.uuid, QStringLiteral("4d1f7b2e-0c55-4c1e-9a55-1b1f0e3a9c01"));
    QCOMPARE(phone.source, HwProfile::Source::VENDOR);
    QCOMPARE(phone.sharerEmail, QString());  // null in the file
    QCOMPARE(phone.cpuCount, 4);
    QCOMPARE(phone.ramSize, 4096);
    QVERIFY(!phone.hasSdCard());
    QCOMPARE(phone.skin, QStringLiteral("pixel_frame"));
    QCOMPARE(phone.displays, QList<HwDisplay>{(HwDisplay{1080, 2340, 440, 6.3, 40, 40, 12})});
    QCOMPARE(phone.buildTags, QStringLiteral("release-keys"));
    QCOMPARE(phone.serialno, QStringLiteral("ACME0006"));
    QCOMPARE(phone.vmHeapSize, 512);

    // Older spellings, no corner radii, no heap size, no skin.
    const HwProfile legacy = parseHwProfile(modelFixture("hwprofile_legacy.json"));
    QVERIFY2(legacy.isValid(), qPrintable(log.dump()));
    QCOMPARE(legacy.formFactor, HwProfile::FormFactor::TABLET);
    QCOMPARE(legacy.serialno, QStringLiteral("LEGACY0001"));
    QCOMPARE(legacy.displays, QList<HwDisplay>{(HwDisplay{1600, 2560, 320, 10.1, 0, 0, 0})});
    QCOMPARE(legacy.vmHeapSize, 256);
    QCOMPARE(legacy.productName, QString());
    QVERIFY(legacy.hasSdCard());
    QVERIFY(legacy.hwNavigationKeys);

    const HwProfile fold = parseHwProfile(modelFixture("hwprofile_foldable.json"));
    QVERIFY2(fold.isValid(), qPrintable(log.dump()));
    QCOMPARE(fold.serialno, QStringLiteral("FOLD0002"));  // wins over build_serial
    QCOMPARE(fold.displayMode, HwProfile::DisplayMode::FOLDABLE);
    QCOMPARE(fold.displays.size(), 2);
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_HwProfile::versionGate_data()
{
    QTest::addColumn<QJsonValue>("version");
    QTest::addColumn<QString>("warning");  // empty: accepted
    QTest::newRow("1.9.3") << QJsonValue("1.9.3") << "";
    QTest::newRow("0.1") << QJsonValue("0.1") << "";
    QTest::newRow("2.0.0") << QJsonValue("2.0.0")
                           << "Unsupported hardware profile: version= 2.0.0 , expected 1.0.0";
    QTest::newRow("2.0.0-alpha1") << QJsonValue("2.0.0-alpha1")
                                  << "Unsupported hardware profile: version= 2.0.0-alpha1 , expected 1.0.0";
    QTest::newRow("missing") << Remove
                             << "Unsupported hardware profile: version= 0.0.0 , expected 1.0.0";
    QTest::newRow("number") << QJsonValue(1)
                            << "Unsupported hardware profile: version= 0.0.0 , expected 1.0.0";
}

void tst_HwProfile::versionGate()
{
    QFETCH(QJsonValue, version);
    QFETCH(QString, warning);
    LogCapture log;
    const HwProfile p = parseHwProfile(edited(modelFixture("hwprofile_phone.json"), "version", version));
    QCOMPARE(p.isValid(), warning.isEmpty());
    if (!warning.isEmpty()) {
        QCOMPARE(p, HwProfile());
        QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
    }
}

void tst_HwProfile::faultyFields_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QStringList>("errors");

    QTest::newRow("no display_settings")
            << "display_settings" << Remove
            << QStringList{"display_settings is missing.",
                           "display_settings.hw_navigation_keys is missing.",
                           "display_settings.display_mode is missing.",
                           "display_settings.displays is missing."};
    QTest::newRow("cpu_count as text") << "cpu_count" << QJsonValue("4")
                                       << QStringList{"cpu_count is not the right type. Expected 2, got 3"};
    QTest::newRow("no uuid") << "uuid" << Remove << QStringList{"uuid is missing."};
    QTest::newRow("no source") << "source" << Remove << QStringList{"source is missing."};
    QTest::newRow("display without width")
            << "display_settings/displays/0/width" << Remove
            << QStringList{"display_settings..displays[0].width is missing."};
    QTest::newRow("radius of wrong type")
            << "display_settings/displays/0/top_corner_radius" << QJsonValue(true)
            << QStringList{"display_settings..displays[0].top_corner_radius is not the right type. Expected 2, got 1"};
    QTest::newRow("no product_model") << "device_properties/product_model" << Remove
                                      << QStringList{"device_properties.product_model is missing."};
    QTest::newRow("no device_properties")
            << "device_properties" << Remove
            << QStringList{"device_properties is missing.",
                           "device_properties.product_model is missing.",
                           "device_properties.product_brand is missing."};
    QTest::newRow("heap of wrong type") << "device_properties/vm_heap_size" << QJsonValue("1g")
                                        << QStringList{"device_properties.vm_heap_size is not the right type. Expected 2, got 3"};
    QTest::newRow("skin of wrong type") << "skin" << QJsonValue(3)
                                        << QStringList{"skin is not the right type. Expected 3, got 2"};
}

void tst_HwProfile::faultyFields()
{
    QFETCH(QString, path);
    QFETCH(QJsonValue, value);
    QFETCH(QStringList, errors);
    LogCapture log;
    const HwProfile p = parseHwProfile(edited(modelFixture("hwprofile_phone.json"), path, value));
    QCOMPARE(p, HwProfile());
    QStringList expected;
    for (const QString &e : errors)
        expected << "Error in field " + e;
    QCOMPARE(log.lines(QtWarningMsg), expected);
}

void tst_HwProfile::screenCount_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("warning");  // empty: accepted
    QTest::newRow("regular, none") << "REGULAR" << 0 << "";
    QTest::newRow("regular, three") << "REGULAR" << 3 << "";
    QTest::newRow("foldable, two") << "FOLDABLE" << 2 << "";
    QTest::newRow("foldable, one") << "FOLDABLE" << 1
                                   << "Foldable phones must have exactly 2 screens, found 1";
    QTest::newRow("foldable, three") << "FOLDABLE" << 3
                                     << "Foldable phones must have exactly 2 screens, found 3";
    QTest::newRow("multi, three") << "MULTI_DISPLAY" << 3 << "";
    QTest::newRow("multi, one") << "MULTI_DISPLAY" << 1
                                << "Multi-screen phones must have at least 2 screens, found 1";
    QTest::newRow("multi, none") << "MULTI_DISPLAY" << 0
                                 << "Multi-screen phones must have at least 2 screens, found 0";
    QTest::newRow("unknown mode, one") << "TRIFOLD" << 1 << "";
}

void tst_HwProfile::screenCount()
{
    QFETCH(QString, mode);
    QFETCH(int, count);
    QFETCH(QString, warning);
    QJsonObject o = modelFixture("hwprofile_phone.json");
    o = edited(o, "display_settings/display_mode", mode);
    o = edited(o, "display_settings/displays", screens(count));
    LogCapture log;
    const HwProfile p = parseHwProfile(o);
    QCOMPARE(p.isValid(), warning.isEmpty());
    if (warning.isEmpty()) {
        QCOMPARE(p.displays.size(), count);
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    } else {
        QCOMPARE(p, HwProfile());
        QCOMPARE(log.lines(QtWarningMsg), QStringList{warning});
    }
}

void tst_HwProfile::lenientReads()
{
    QJsonObject o = modelFixture("hwprofile_phone.json");
    o = edited(o, "ram_size", 2048.5);
    o = edited(o, "form_factor", "FOLDING_TV");
    o = edited(o, "source", "user");
    LogCapture log;
    const HwProfile p = parseHwProfile(o);
    QVERIFY2(p.isValid(), qPrintable(log.dump()));
    QCOMPARE(p.ramSize, 0);
    QCOMPARE(int(p.formFactor), HwProfile::UnreadableEnum);
    QCOMPARE(int(p.source), HwProfile::UnreadableEnum);
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));

    // An unreadable enumeration is written as an empty name and reads back unreadable.
    const HwProfile again = parseHwProfile(serializeHwProfile(p));
    QCOMPARE(again, p);
}

void tst_HwProfile::serializeWritesAllKeys()
{
    HwProfile p = parseHwProfile(modelFixture("hwprofile_legacy.json"));
    p.ramSize = 5000000000LL;
    const QJsonObject o = serializeHwProfile(p);
    QCOMPARE(o.value("version").toString(), QStringLiteral("1.0.0"));
    QCOMPARE(o.value("source").toString(), QStringLiteral("USER"));
    QCOMPARE(o.value("form_factor").toString(), QStringLiteral("TABLET"));
    QCOMPARE(o.value("ram_size").toVariant().toLongLong(), 5000000000LL);
    QCOMPARE(o.keys(), (QStringList{"cpu_count", "data_disk_size", "device_properties",
                                    "display_settings", "form_factor", "ram_size", "sd_card_size",
                                    "sharer_email", "skin", "source", "uuid", "version"}));
    const QJsonObject props = o.value("device_properties").toObject();
    QCOMPARE(props.keys(), (QStringList{"build_display_id", "build_fingerprint", "build_tags",
                                        "build_type", "product_board", "product_brand",
                                        "product_device", "product_manufacturer", "product_model",
                                        "product_name", "serialno", "vm_heap_size"}));
    QCOMPARE(props.value("serialno").toString(), QStringLiteral("LEGACY0001"));
    QCOMPARE(props.value("product_board"), QJsonValue(QString()));
    const QJsonObject settings = o.value("display_settings").toObject();
    QCOMPARE(settings.keys(), (QStringList{"display_mode", "displays", "hw_navigation_keys"}));
    QCOMPARE(settings.value("displays").toArray().first().toObject().keys(),
             (QStringList{"bottom_corner_radius", "content_padding", "density", "height",
                          "physical_size", "top_corner_radius", "width"}));
}

void tst_HwProfile::roundTrip_data()
{
    QTest::addColumn<QString>("fixture");
    QTest::newRow("phone") << "hwprofile_phone.json";
    QTest::newRow("legacy") << "hwprofile_legacy.json";
    QTest::newRow("foldable") << "hwprofile_foldable.json";
}

void tst_HwProfile::roundTrip()
{
    QFETCH(QString, fixture);
    const HwProfile first = parseHwProfile(modelFixture(fixture));
    QVERIFY(first.isValid());
    // Through text too, as device.json stores it.
    const QByteArray text = QJsonDocument(serializeHwProfile(first)).toJson();
    const HwProfile second = parseHwProfile(QJsonDocument::fromJson(text).object());
    QCOMPARE(second, first);
    QCOMPARE(serializeHwProfile(second), serializeHwProfile(first));
}

void tst_HwProfile::reflectedProperties()
{
    const QMetaObject &meta = HwProfile::staticMetaObject;
    QStringList names;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i)
        names << QString::fromLatin1(meta.property(i).name());
    QCOMPARE(names, (QStringList{"uuid", "brand", "model", "formFactor", "cpuCount", "ramSize",
                                 "dataDiskSize", "sdCardDiskSize", "skin", "primaryResolution",
                                 "readOnly", "vmHeapSize"}));
    for (int i = 0; i < names.size(); ++i)
        QCOMPARE(meta.property(meta.propertyOffset() + i).isWritable(), i < 9);

    HwProfile p = parseHwProfile(modelFixture("hwprofile_phone.json"));
    const auto prop = [&meta](const char *name) {
        return meta.property(meta.indexOfProperty(name));
    };
    QCOMPARE(prop("brand").readOnGadget(&p).toString(), QStringLiteral("Acme"));
    QCOMPARE(prop("primaryResolution").readOnGadget(&p).toSize(), QSize(1080, 2340));
    QCOMPARE(prop("readOnly").readOnGadget(&p).toBool(), true);
    QCOMPARE(prop("vmHeapSize").readOnGadget(&p).toInt(), 512);
    QVERIFY(prop("ramSize").writeOnGadget(&p, 3072));
    QVERIFY(prop("sdCardDiskSize").writeOnGadget(&p, 256));
    QVERIFY(prop("formFactor").writeOnGadget(&p, QVariant::fromValue(HwProfile::FormFactor::WATCH)));
    QCOMPARE(p.ramSize, 3072);
    QVERIFY(p.hasSdCard());
    QCOMPARE(p.formFactor, HwProfile::FormFactor::WATCH);

    p.source = HwProfile::Source::USER;
    p.displays.clear();
    QCOMPARE(prop("readOnly").readOnGadget(&p).toBool(), false);
    QCOMPARE(prop("primaryResolution").readOnGadget(&p).toSize(), QSize());
}

void tst_HwProfile::badInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("not json") << QByteArray("version=1.0.0");
    QTest::newRow("truncated") << QByteArray(R"({"version":"1.0.0","uuid":"x)");
    QTest::newRow("array") << QByteArray(R"([{"version":"1.0.0"}])");
    QTest::newRow("all null") << QByteArray(
            R"({"version":"1.0.0","uuid":null,"source":null,"display_settings":null,"device_properties":null})");
    QTest::newRow("displays of numbers") << QByteArray(
            R"({"version":"1.0.0","display_settings":{"displays":[1,2,3]}})");
    QTest::newRow("huge numbers") << QByteArray(
            R"({"version":"99999999999999999999","cpu_count":1e308,"ram_size":-1e308})");
    QByteArray deep(5000, '[');
    deep.prepend(R"({"version":"1.0.0","display_settings":)");
    QTest::newRow("deeply nested") << deep;
    QTest::newRow("not utf-8") << QByteArray("{\"version\":\"1.0.0\",\"uuid\":\"\xff\xfe\x80\"}");
}

void tst_HwProfile::badInput()
{
    QFETCH(QByteArray, bytes);
    LogCapture log;
    const HwProfile p = parseHwProfile(QJsonDocument::fromJson(bytes).object());
    QCOMPARE(p, HwProfile());
    QVERIFY(!log.lines(QtWarningMsg).isEmpty());
}

void tst_HwProfile::largeDocument()
{
    QJsonObject o = modelFixture("hwprofile_phone.json");
    o = edited(o, "display_settings/displays", screens(100000));
    QElapsedTimer timer;
    timer.start();
    const HwProfile p = parseHwProfile(o);
    QCOMPARE(p.displays.size(), 100000);
    QCOMPARE(p.displays.last().width, 100 + 99999);
    QVERIFY2(timer.elapsed() < 20000, "reading 100000 screens took too long");
}

QTEST_APPLESS_MAIN(tst_HwProfile)
#include "tst_hwprofile.moc"
