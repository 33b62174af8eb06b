#include "logcapture.h"
#include "testdoubles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QtTest>

namespace {

Version version(int major, int minor, int patch, int status = Version::Release, int number = 0)
{
    Version v;
    v.majorVersion = major;
    v.minorVersion = minor;
    v.patchVersion = patch;
    v.patchStatus = status;
    v.statusNumber = number;
    return v;
}

HwProfile profile(bool withDisplay = true)
{
    HwProfile p;
    p.uuid = QStringLiteral("4f0c2b9e-0d4c-4a59-9a43-5c3c0f1d7e21");
    p.productModel = QStringLiteral("Model X");
    p.cpuCount = 4;
    p.ramSize = 4096;
    p.dataDiskSize = 8192;
    p.sdCardSize = 512;
    if (!withDisplay)
        p.displays.clear();
    return p;
}

OsImage image(const Version &osVersion = version(11, 0, 0))
{
    OsImage i;
    i.uuid = QStringLiteral("1d5b7c3a-9f7e-4b8e-8d0c-6a2f4e9b1c07");
    i.name = QStringLiteral("img");
    i.buildDate = QDateTime(QDate(2021, 3, 4), QTime(10, 20, 30), Qt::UTC);
    i.source = HwProfile::Source::USER;
    i.osVersion = osVersion;
    i.imageVersion = version(1, 2, 0);
    i.arch = QStringLiteral("x86_64");
    i.imageUri = QStringLiteral("image.ova");
    i.version = version(1, 1, 0);
    i.sdkVersion = 30;
    return i;
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject jsonOf(const QString &path)
{
    return QJsonDocument::fromJson(contents(path)).object();
}

// A device.json as another writer may have left it: the known keys plus whatever the test adds.
QJsonObject deviceObject(const HwProfile &p = profile(), const OsImage &i = image())
{
    QJsonObject object;
    object.insert(QStringLiteral("hardware_profile"), serializeHwProfile(p));
    object.insert(QStringLiteral("os_image"), serializeOsImage(i));
    return object;
}

// The one value each named operation reads or writes, so a table can cover them all.
void apply(VMToolsMachine &m, const QString &op)
{
    if (op == "sdcard_inserted") m.setSdCardInserted(true);
    else if (op == "fullscreen") m.setFullscreen(true);
    else if (op == "virtual_keyboard") m.setVirtualKeyboardEnabled(true);
    else if (op == "quickboot") m.setQuickbootEnabled(false);
    else if (op == "gl_es_api_level") m.setGlEsApiLevel(QStringLiteral("3.1"));
    else if (op == "generic") m.setConfigurationValue(QStringLiteral("custom"), 42);
    else if (op == "ram") m.setRamSize(2048);
    else if (op == "model") m.setProductModel(QStringLiteral("Other"));
    else if (op == "os image name") m.setOsImageName(QStringLiteral("renamed"));
    else if (op == "bottom radius") m.setBottomCornerRadius(7);
    else if (op == "top radius") m.setTopCornerRadius(8);
    else if (op == "padding") m.setContentPadding(9);
    else if (op == "density") m.setDisplayDensity(320);
    else if (op == "size") m.setDisplaySize(QSize(1080, 1920));
    else if (op == "first display") m.setFirstDisplay(HwDisplay{720, 1280, 240, 5.5, 1, 2, 3});
    else QFAIL(qPrintable("unknown operation " + op));
}

QVariant read(const VMToolsMachine &m, const QString &op)
{
    if (op == "sdcard_inserted") return m.isSdCardInserted();
    if (op == "fullscreen") return m.isFullscreen();
    if (op == "virtual_keyboard") return m.isVirtualKeyboardEnabled();
    if (op == "quickboot") return m.isQuickbootEnabled();
    if (op == "gl_es_api_level") return m.glEsApiLevel();
    if (op == "generic") return m.configurationValue(QStringLiteral("custom"));
    if (op == "ram") return m.ramSize();
    if (op == "model") return m.productModel();
    if (op == "os image name") return m.osImageName();
    if (op == "bottom radius") return m.bottomCornerRadius();
    if (op == "top radius") return m.topCornerRadius();
    if (op == "padding") return m.contentPadding();
    if (op == "density") return m.displayDensity();
    if (op == "size") return m.displaySize();
    if (op == "first display") return QVariant::fromValue(m.displays().value(0).physicalSize);
    return {};
}

// Records the order in which setup reaches the virtual setters and what it had set by then.
class RecordingMachine : public TestMachine
{
public:
    using TestMachine::TestMachine;
    QStringList calls;
    bool stateReadyAtFirstCall = false;

    bool setCpuCount(int count) override
    {
        stateReadyAtFirstCall = m_hardwareProfile == profile() && m_osImage == image();
        calls << QStringLiteral("cpu %1").arg(count);
        return TestMachine::setCpuCount(count);
    }
    bool setRamSize(qint64 mb) override { calls << QStringLiteral("ram %1").arg(mb); return TestMachine::setRamSize(mb); }
    bool setSdCardSize(qint64 mb) override { calls << QStringLiteral("sd size %1").arg(mb); return TestMachine::setSdCardSize(mb); }
    bool setSdCardInserted(bool on) override { calls << QStringLiteral("sd inserted %1").arg(on); return TestMachine::setSdCardInserted(on); }
};

} // namespace

class tst_VMToolsMachine : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void setupThenLoad();
    void setupOrder();
    void extraKeysKept();
    void configurationDefaults_data();
    void configurationDefaults();
    void settersPersistAtOnce_data();
    void settersPersistAtOnce();
    void displaySettersWithoutDisplay_data();
    void displaySettersWithoutDisplay();
    void migrationOnLoad_data();
    void migrationOnLoad();
    void loadFailures_data();
    void loadFailures();
    void saveFailures_data();
    void saveFailures();
    void sizeOnDiskCached();
    void deleteSnapshotFiles_data();
    void deleteSnapshotFiles();
    void virtioFlag_data();
    void virtioFlag();
    void configurationValue_data();
    void configurationValue();

private:
    QString devicePath() const { return m_dir->filePath(QStringLiteral("dev")); }
    QString jsonPath() const { return devicePath() + QStringLiteral("/shared/config/device.json"); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_VMToolsMachine::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void tst_VMToolsMachine::setupThenLoad()
{
    TestMachine created(devicePath());
    QVERIFY(created.setup(profile(), image()));

    TestMachine loaded(devicePath());
    QVERIFY(loaded.load());
    QCOMPARE(loaded.hardwareProfile(), profile());
    QCOMPARE(loaded.osImage(), image());
    QVERIFY(loaded.isSdCardInserted());
    QCOMPARE(loaded.osImageDate(), QStringLiteral("2021.03.04"));
    // Indented, as a person editing the file by hand expects.
    QVERIFY(contents(jsonPath()).contains("\n    \""));
}

void tst_VMToolsMachine::setupOrder()
{
    RecordingMachine machine(devicePath());
    QVERIFY(machine.setup(profile(), image()));
    QCOMPARE(machine.calls, (QStringList{"cpu 4", "ram 4096", "sd size 512", "sd inserted 1"}));
    QVERIFY(machine.stateReadyAtFirstCall);
    QCOMPARE(jsonOf(jsonPath()).value("configuration").toObject().value("sdcard_inserted"), QJsonValue(true));
}

void tst_VMToolsMachine::extraKeysKept()
{
    QJsonObject object = deviceObject();
    const QJsonObject custom{{"list", QJsonArray{1, "two", true}}, {"nested", QJsonObject{{"a", 1.5}}}};
    object.insert("custom", custom);
    object.insert("virtualizer", "QEMU");
    QVERIFY(writeFile(jsonPath(), QJsonDocument(object).toJson()));

    TestMachine machine(devicePath());
    QVERIFY(machine.load());
    QVERIFY(machine.setFullscreen(true));

    const QJsonObject saved = jsonOf(jsonPath());
    QCOMPARE(saved.value("custom").toObject(), custom);
    QCOMPARE(saved.value("virtualizer").toString(), QStringLiteral("QEMU"));
    QCOMPARE(saved.value("configuration").toObject().value("fullscreen"), QJsonValue(true));
    QCOMPARE(saved.keys(), (QStringList{"configuration", "custom", "hardware_profile", "os_image", "virtualizer"}));
}

void tst_VMToolsMachine::configurationDefaults_data()
{
    QTest::addColumn<QJsonValue>("configuration");  // undefined: key absent
    QTest::addColumn<bool>("sdcard");
    QTest::addColumn<bool>("fullscreen");
    QTest::addColumn<bool>("keyboard");
    QTest::addColumn<bool>("quickboot");
    QTest::addColumn<QString>("gles");

    QTest::newRow("absent") << QJsonValue(QJsonValue::Undefined) << false << false << false << true << "";
    QTest::newRow("empty") << QJsonValue(QJsonObject{}) << false << false << false << true << "";
    QTest::newRow("all set") << QJsonValue(QJsonObject{{"sdcard_inserted", true}, {"fullscreen", true},
                                                      {"virtual_keyboard", true}, {"quickboot", false},
                                                      {"gl_es_api_level", "3.0"}})
                             << true << true << true << false << "3.0";
    QTest::newRow("strings converted") << QJsonValue(QJsonObject{{"fullscreen", "true"}, {"quickboot", "false"},
                                                                 {"virtual_keyboard", QJsonArray{1}}, {"sdcard_inserted", "0"}})
                                       << false << true << false << false << "";
    QTest::newRow("not an object") << QJsonValue(QJsonArray{1}) << false << false << false << true << "";
}

void tst_VMToolsMachine::configurationDefaults()
{
    QFETCH(QJsonValue, configuration);

    QJsonObject object = deviceObject();
    if (!configuration.isUndefined())
        object.insert("configuration", configuration);
    QVERIFY(writeFile(jsonPath(), QJsonDocument(object).toJson()));

    TestMachine machine(devicePath());
    QVERIFY(machine.load());
    QTEST(machine.isSdCardInserted(), "sdcard");
    QTEST(machine.isFullscreen(), "fullscreen");
    QTEST(machine.isVirtualKeyboardEnabled(), "keyboard");
    QTEST(machine.isQuickbootEnabled(), "quickboot");
    QTEST(machine.glEsApiLevel(), "gles");
}

void tst_VMToolsMachine::settersPersistAtOnce_data()
{
    QTest::addColumn<QString>("op");
    QTest::addColumn<QVariant>("value");  // what a fresh load reads back

    QTest::newRow("sdcard_inserted") << "sdcard_inserted" << QVariant(true);
    QTest::newRow("fullscreen") << "fullscreen" << QVariant(true);
    QTest::newRow("virtual_keyboard") << "virtual_keyboard" << QVariant(true);
    QTest::newRow("quickboot") << "quickboot" << QVariant(false);
    QTest::newRow("gl_es_api_level") << "gl_es_api_level" << QVariant("3.1");
    QTest::newRow("generic") << "generic" << QVariant("42");
    QTest::newRow("ram") << "ram" << QVariant(qint64(2048));
    QTest::newRow("model") << "model" << QVariant("Other");
    QTest::newRow("os image name") << "os image name" << QVariant("renamed");
    QTest::newRow("bottom radius") << "bottom radius" << QVariant(7);
    QTest::newRow("top radius") << "top radius" << QVariant(8);
    QTest::newRow("padding") << "padding" << QVariant(9);
    QTest::newRow("density") << "density" << QVariant(320);
    QTest::newRow("size") << "size" << QVariant(QSize(1080, 1920));
    QTest::newRow("first display") << "first display" << QVariant(5.5);
}

void tst_VMToolsMachine::settersPersistAtOnce()
{
    QFETCH(QString, op);
    QFETCH(QVariant, value);

    TestMachine machine(devicePath());
    QVERIFY(machine.setup(profile(), image()));
    apply(machine, op);

    // Nothing else is saved after the setter, so a second object sees the change only if
    // the setter itself wrote the file.
    TestMachine reloaded(devicePath());
    QVERIFY(reloaded.load());
    QCOMPARE(read(reloaded, op), value);
}

void tst_VMToolsMachine::displaySettersWithoutDisplay_data()
{
    QTest::addColumn<QString>("op");
    for (const char *op : {"bottom radius", "top radius", "padding", "density", "size", "first display"})
        QTest::newRow(op) << QString::fromLatin1(op);
}

void tst_VMToolsMachine::displaySettersWithoutDisplay()
{
    QFETCH(QString, op);

    TestMachine machine(devicePath());
    QVERIFY(machine.setup(profile(false), image()));
    // A save would bring the file back.
    QVERIFY(QFile::remove(jsonPath()));

    bool answered = false;
    if (op == "bottom radius") answered = machine.setBottomCornerRadius(7);
    else if (op == "top radius") answered = machine.setTopCornerRadius(8);
    else if (op == "padding") answered = machine.setContentPadding(9);
    else if (op == "density") answered = machine.setDisplayDensity(320);
    else if (op == "size") answered = machine.setDisplaySize(QSize(1, 2));
    else answered = machine.setFirstDisplay(HwDisplay{});
    QVERIFY(answered);
    QVERIFY(!QFileInfo::exists(jsonPath()));
    QVERIFY(machine.displays().isEmpty());
    QCOMPARE(machine.hardwareProfile(), profile(false));
}

void tst_VMToolsMachine::migrationOnLoad_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<Version>("osVersion");
    QTest::addColumn<QString>("arch");          // as stored; empty: key absent
    QTest::addColumn<bool>("rewritten");
    QTest::addColumn<QString>("expectedArch");

    QTest::newRow("1.0.0, Android 11") << "1.0.0" << version(11, 0, 0) << "" << true << "x86_64";
    QTest::newRow("1.0.0, Android 10") << "1.0.0" << version(10, 0, 0) << "" << true << "x86";
    QTest::newRow("1.0.0, arch kept") << "1.0.0" << version(7, 1, 0) << "arm" << true << "arm";
    QTest::newRow("1.1.0 untouched") << "1.1.0" << version(11, 0, 0) << "x86" << false << "x86";
}

void tst_VMToolsMachine::migrationOnLoad()
{
    QFETCH(QString, format);
    QFETCH(Version, osVersion);
    QFETCH(QString, arch);
    QFETCH(bool, rewritten);
    QFETCH(QString, expectedArch);

    QJsonObject imageObject = serializeOsImage(image(osVersion));
    imageObject.insert("version", format);
    if (arch.isEmpty())
        imageObject.remove("arch");
    else
        imageObject.insert("arch", arch);
    QJsonObject object = deviceObject();
    object.insert("os_image", imageObject);
    // Compact, so that any rewrite (always indented) shows in the bytes.
    const QByteArray original = QJsonDocument(object).toJson(QJsonDocument::Compact);
    QVERIFY(writeFile(jsonPath(), original));

    LogCapture log;
    TestMachine machine(devicePath());
    QVERIFY(machine.load());
    QCOMPARE(machine.osImage().arch, expectedArch);
    QCOMPARE(machine.osImage().version, version(1, 1, 0));

    QCOMPARE(contents(jsonPath()) != original, rewritten);
    const QJsonObject saved = jsonOf(jsonPath()).value("os_image").toObject();
    QCOMPARE(saved.value("version").toString(), QStringLiteral("1.1.0"));
    QCOMPARE(saved.value("arch").toString(), expectedArch);
    QCOMPARE(log.contains(QtDebugMsg, "Migrating OsImage img of device dev from 1.0.0 to 1.1.0"), rewritten);
}

void tst_VMToolsMachine::loadFailures_data()
{
    QTest::addColumn<QByteArray>("content");  // null: no file
    QTest::addColumn<QString>("warning");     // %1: the device.json path

    QTest::newRow("no file") << QByteArray() << QString();
    QTest::newRow("truncated json") << QByteArray("{\"hardware_profile\":") << "Failed to read json from";
    QTest::newRow("array") << QByteArray("[1, 2]") << "[VMTools] Failed to load hwProfile %1 , skip device";
    HwProfile noUuid = profile();
    noUuid.uuid.clear();
    QTest::newRow("profile without uuid") << QJsonDocument(deviceObject(noUuid)).toJson()
                                          << "[VMTools] Failed to load hwProfile %1 , skip device";
}

void tst_VMToolsMachine::loadFailures()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, warning);

    if (!content.isNull())
        QVERIFY(writeFile(jsonPath(), content));
    LogCapture log;
    TestMachine machine(devicePath());
    QVERIFY(!machine.load());
    if (!warning.isEmpty()) {
        const bool found = warning.contains("%1") ? log.contains(QtWarningMsg, warning.arg(jsonPath()))
                                                  : log.containsPrefix(QtWarningMsg, warning);
        QVERIFY2(found, qPrintable(log.dump()));
    }
    QCOMPARE(contents(jsonPath()), content.isNull() ? QByteArray() : content);
}

void tst_VMToolsMachine::saveFailures_data()
{
    QTest::addColumn<QString>("blocker");  // what stands in the way

    QTest::newRow("device directory is a file") << "file";
    QTest::newRow("device.json is a directory") << "directory";
}

void tst_VMToolsMachine::saveFailures()
{
    QFETCH(QString, blocker);

    QString path = devicePath();
    QString expected;
    if (blocker == "file") {
        QVERIFY(writeFile(path, "not a directory"));
        expected = "[VMTools] Failed to create directory: " + path + "/shared/config";
    } else {
        QVERIFY(QDir().mkpath(jsonPath()));
        QSaveFile probe(jsonPath());
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        expected = "[VMTools] Failed to open file for writing: " + probe.errorString();
    }

    LogCapture log;
    TestMachine machine(path);
    QVERIFY(!machine.setFullscreen(true));
    QVERIFY2(log.contains(QtCriticalMsg, expected), qPrintable(log.dump()));
}

void tst_VMToolsMachine::sizeOnDiskCached()
{
    QVERIFY(QDir().mkpath(devicePath()));
    TestMachine empty(devicePath());
    QCOMPARE(empty.sizeOnDisk(), qint64(0));

    QVERIFY(writeFile(devicePath() + "/system.qcow2", QByteArray(1000, 'x')));
    QVERIFY(writeFile(devicePath() + "/shared/config/device.json", QByteArray(234, 'y')));
    QCOMPARE(empty.sizeOnDisk(), qint64(0));

    TestMachine fresh(devicePath());
    QCOMPARE(fresh.sizeOnDisk(), qint64(1234));
}

void tst_VMToolsMachine::deleteSnapshotFiles_data()
{
    QTest::addColumn<QString>("snap");  // "", "file" or "busy directory"
    QTest::addColumn<QString>("stex");
    QTest::addColumn<bool>("result");

    QTest::newRow("neither") << "" << "" << true;
    QTest::newRow("both") << "file" << "file" << true;
    QTest::newRow("only stex") << "" << "file" << true;
    QTest::newRow("snap cannot go") << "busy directory" << "file" << false;
}

void tst_VMToolsMachine::deleteSnapshotFiles()
{
    QFETCH(QString, snap);
    QFETCH(QString, stex);
    QFETCH(bool, result);

    TestMachine machine(devicePath());
    const QStringList kinds{snap, stex};
    const QStringList paths{machine.snapshotFilePath(), machine.snapshotExtraFilePath()};
    QCOMPARE(paths, (QStringList{devicePath() + "/snapshot.snap", devicePath() + "/snapshot.stex"}));
    for (int i = 0; i < 2; ++i) {
        if (kinds[i] == "file")
            QVERIFY(writeFile(paths[i], "state"));
        else if (kinds[i] == "busy directory")
            QVERIFY(writeFile(paths[i] + "/inside", "x"));
    }

    QCOMPARE(machine.deleteSnapshotFiles(), result);
    for (int i = 0; i < 2; ++i)
        QCOMPARE(QFileInfo::exists(paths[i]), kinds[i] == "busy directory");
}

void tst_VMToolsMachine::virtioFlag_data()
{
    QTest::addColumn<Version>("osVersion");
    QTest::addColumn<bool>("virtio");

    QTest::newRow("7.1.0") << version(7, 1, 0) << false;
    QTest::newRow("8.0.0") << version(8, 0, 0) << false;
    QTest::newRow("8.0.0-beta1") << version(8, 0, 0, Version::Beta, 1) << false;
    QTest::newRow("8.0.0.5") << version(8, 0, 0, Version::Release, 5) << true;
    QTest::newRow("8.0.1") << version(8, 0, 1) << true;
    QTest::newRow("8.1.0") << version(8, 1, 0) << true;
    QTest::newRow("9.0.0-alpha1") << version(9, 0, 0, Version::Alpha, 1) << true;
    QTest::newRow("11.0.0") << version(11, 0, 0) << true;
}

void tst_VMToolsMachine::virtioFlag()
{
    QFETCH(Version, osVersion);
    QFETCH(bool, virtio);

    TestMachine machine(devicePath());
    QVERIFY(machine.setup(profile(), image(osVersion)));
    QCOMPARE(machine.optionFlags() & VMToolsMachine::VirtioFlag, virtio ? 1u : 0u);
    QCOMPARE(machine.usesVirtio(), virtio);
}

void tst_VMToolsMachine::configurationValue_data()
{
    QTest::addColumn<QVariant>("stored");  // invalid: key absent
    QTest::addColumn<QVariant>("result");

    const QVariant fallback(QStringLiteral("fallback"));
    QTest::newRow("absent") << QVariant() << fallback;
    QTest::newRow("empty string") << QVariant(QString()) << fallback;
    QTest::newRow("text") << QVariant("abc") << QVariant("abc");
    QTest::newRow("bool as text") << QVariant(false) << QVariant("false");
    QTest::newRow("object has no text") << QVariant(QVariantMap{{"a", 1}}) << fallback;
}

void tst_VMToolsMachine::configurationValue()
{
    QFETCH(QVariant, stored);
    QFETCH(QVariant, result);

    TestMachine machine(devicePath());
    if (stored.isValid())
        QVERIFY(machine.setConfigurationValue("key", stored));
    QCOMPARE(machine.configurationValue("key", QStringLiteral("fallback")), result);
}

QTEST_GUILESS_MAIN(tst_VMToolsMachine)
#include "tst_vmtoolsmachine.moc"
