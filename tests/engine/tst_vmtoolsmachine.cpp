#include "fixtures.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testfiles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>


namespace {

using Setter = std::function<bool(VMToolsMachine &, const QJsonValue &)>;
using Getter = std::function<QJsonValue(const VMToolsMachine &)>;

QJsonObject displayJson(const HwDisplay &d)
{
    return {{"width", d.width}, {"height", d.height}, {"density", d.density},
            {"physical_size", d.physicalSize}, {"bottom_corner_radius", d.bottomCornerRadius},
            {"top_corner_radius", d.topCornerRadius}, {"content_padding", d.contentPadding}};
}

HwDisplay displayFrom(const QJsonObject &o)
{
    return {o["width"].toInt(), o["height"].toInt(), o["density"].toInt(), o["physical_size"].toDouble(),
            o["bottom_corner_radius"].toInt(), o["top_corner_radius"].toInt(), o["content_padding"].toInt()};
}

// Base-class setters and getters, called past any override so the base behaviour is what runs.
#define OP(set, get, conv) {#set, {[](VMToolsMachine &m, const QJsonValue &v) { return m.VMToolsMachine::set(v.conv()); }, \
                                   [](const VMToolsMachine &m) { return QJsonValue::fromVariant(QVariant::fromValue(m.VMToolsMachine::get())); }}}
const QMap<QString, QPair<Setter, Getter>> operations{
    OP(setRamSize, ramSize, toInt), OP(setVmHeapSize, vmHeapSize, toInt), OP(setBottomCornerRadius, bottomCornerRadius, toInt),
    OP(setTopCornerRadius, topCornerRadius, toInt), OP(setContentPadding, contentPadding, toInt),
    OP(setGlEsApiLevel, glEsApiLevel, toString), OP(setSdCardSize, sdCardSize, toInt),
    OP(setSdCardInserted, isSdCardInserted, toBool), OP(setCpuCount, cpuCount, toInt), OP(setSkin, skin, toString),
    OP(setSharerEmail, sharerEmail, toString), OP(setSkinVariant, skinVariant, toString),
    OP(setDisplayDensity, displayDensity, toInt), OP(setHwProfileUuid, hwProfileUuid, toString),
    OP(setOsImageName, osImageName, toString), OP(setDataDiskSize, dataDiskSize, toInt),
    OP(setFullscreen, isFullscreen, toBool), OP(setVirtualKeyboardEnabled, isVirtualKeyboardEnabled, toBool),
    OP(setProductName, productName, toString), OP(setProductModel, productModel, toString),
    OP(setProductManufacturer, productManufacturer, toString), OP(setProductBrand, productBrand, toString),
    OP(setProductBoard, productBoard, toString), OP(setBuildDisplayId, buildDisplayId, toString),
    OP(setProductDevice, productDevice, toString), OP(setSerialno, serialno, toString),
    OP(setBuildType, buildType, toString), OP(setBuildFingerprint, buildFingerprint, toString),
    OP(setBuildTags, buildTags, toString), OP(setQuickbootEnabled, isQuickbootEnabled, toBool),
    {"setDisplaySize", {[](VMToolsMachine &m, const QJsonValue &v) { return m.VMToolsMachine::setDisplaySize(QSize(v[0].toInt(), v[1].toInt())); },
                        [](const VMToolsMachine &m) { return QJsonValue(QJsonArray{m.displaySize().width(), m.displaySize().height()}); }}},
    {"setFirstDisplay", {[](VMToolsMachine &m, const QJsonValue &v) { return m.VMToolsMachine::setFirstDisplay(displayFrom(v.toObject())); },
                         [](const VMToolsMachine &m) { return QJsonValue(displayJson(m.displays().value(0))); }}},
    {"setFormFactor", {[](VMToolsMachine &m, const QJsonValue &v) { return m.VMToolsMachine::setFormFactor(v == "TABLET" ? HwProfile::FormFactor::TABLET : HwProfile::FormFactor::TV); },
                       [](const VMToolsMachine &m) { return QJsonValue(m.formFactorCode() == "tp" ? "TABLET" : "other"); }}},
    {"setConfigurationValue", {[](VMToolsMachine &m, const QJsonValue &v) { return m.VMToolsMachine::setConfigurationValue("custom_key", v.toVariant()); },
                               [](const VMToolsMachine &m) { return QJsonValue::fromVariant(m.configurationValue("custom_key")); }}},
};

QJsonValue withChange(const QJsonValue &node, QStringList path, const QJsonValue &value)
{
    if (path.isEmpty())
        return value;
    const QString key = path.takeFirst();
    if (node.isArray()) {
        QJsonArray array = node.toArray();
        array[key.toInt()] = withChange(array.at(key.toInt()), path, value);
        return array;
    }
    QJsonObject object = node.toObject();
    object[key] = withChange(object.value(key), path, value);
    return object;
}

} // namespace

class tst_VMToolsMachine : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
    std::unique_ptr<QEMUEngine> m_engine;

    std::unique_ptr<QEMUMachine> newMachine(const QTemporaryDir &dir, const HwProfile &profile = testProfile())
    {
        auto machine = std::make_unique<QEMUMachine>(m_engine.get(), dir.filePath("dev"), profile, testImage());
        return machine->save() ? std::move(machine) : nullptr;
    }

private slots:
    void initTestCase()
    {
        qputenv("QV_HOME", m_home.path().toUtf8());
        m_engine = std::make_unique<QEMUEngine>();
    }

    void setterRewritesDeviceJson_data()
    {
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QJsonValue>("value");
        QTest::addColumn<QJsonObject>("changes");  // path in device.json -> value it holds
        QTest::addColumn<QJsonValue>("reloadedValue");  // the value a reload gives back
        const QJsonArray rows = QJsonDocument::fromJson(fileContents(QV_TEST_DATA_DIR "/engine/setters.json")).array();
        QCOMPARE(rows.size(), 34);
        for (const QJsonValue &row : rows)
            QTest::newRow(qPrintable(row[0].toString())) << row[0].toString() << row[1] << row[2].toObject()
                                               << (row[3].isUndefined() ? row[1] : row[3]);
    }
    void setterRewritesDeviceJson()
    {
        QFETCH(QString, operation);
        QFETCH(QJsonValue, value);
        QFETCH(QJsonObject, changes);
        QFETCH(QJsonValue, reloadedValue);
        QTemporaryDir dir;
        auto machine = newMachine(dir);
        QVERIFY(machine && operations.contains(operation));
        QJsonValue expected = jsonFileObject(machine->deviceJsonPath());
        for (auto it = changes.begin(); it != changes.end(); ++it)
            expected = withChange(expected, it.key().split('/'), it.value());

        // Blanked first, so that only a real rewrite brings the whole file back.
        QVERIFY(writeFile(machine->deviceJsonPath(), "{}"));
        QVERIFY(operations[operation].first(*machine, value));
        QCOMPARE(QJsonValue(jsonFileObject(machine->deviceJsonPath())), expected);
        QEMUMachine reloaded(m_engine.get(), machine->path());
        QVERIFY(reloaded.load());
        QCOMPARE(operations[operation].second(reloaded), reloadedValue);
    }

    // The card goes in only when it has a size; 1 MiB is enough.
    void sdCardNeedsASize()
    {
        for (const int size : {0, 1}) {
            QTemporaryDir dir;
            auto machine = newMachine(dir, testProfile(256, 1, size));
            QVERIFY(machine && writeFile(dir.filePath("dev/sdcard.qcow2"), "card"));
            QCOMPARE((QList<bool>{machine->setSdCardInserted(true), machine->isSdCardInserted()}), (QList<bool>{size == 1, size == 1}));
        }
    }

    // A device without configuration: quick boot on, the other switches off; hosts that talk
    // to the base machine get the guest's own ADB port.
    void defaults()
    {
        QTemporaryDir dir;
        auto machine = newMachine(dir);
        QVERIFY(machine);
        QCOMPARE((QList<bool>{machine->isQuickbootEnabled(), machine->isFullscreen(), machine->isVirtualKeyboardEnabled(), machine->isSdCardInserted()}),
                 (QList<bool>{true, false, false, false}));
        QCOMPARE(machine->VMToolsMachine::adbPort(), quint16(5555));
    }

    // Every file counts, hidden ones too; the figure is taken once per machine object.
    void sizeOnDisk()
    {
        QTemporaryDir dir;
        auto machine = newMachine(dir);
        const qint64 json = QFileInfo(machine->deviceJsonPath()).size();
        QVERIFY(writeFile(dir.filePath("dev/.hidden/a"), "12345") && writeFile(dir.filePath("dev/.b"), "123"));
        QCOMPARE(machine->sizeOnDisk(), json + 8);
        QVERIFY(writeFile(dir.filePath("dev/more"), "1"));
        QCOMPARE(machine->sizeOnDisk(), json + 8);
    }

};

QTEST_GUILESS_MAIN(tst_VMToolsMachine)
#include "tst_vmtoolsmachine.moc"
