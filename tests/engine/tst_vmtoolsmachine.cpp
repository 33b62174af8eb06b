#include "casetable.h"
#include "fixtures.h"
#include "hostdirectories.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "qmpsocket.h"

#include <QTemporaryDir>

#include <csignal>
#include <sys/resource.h>


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

QEMUEngine *g_engine = nullptr;

// Operations of a device folder that rows of machine.json prepare; each answers what the row checks.
using Operation = std::function<QJsonValue(QEMUMachine &, const QJsonValue &)>;
const QMap<QString, Operation> folderOperations{
    {"save", [](QEMUMachine &m, const QJsonValue &) { return m.save(); }},
    {"load", [](QEMUMachine &m, const QJsonValue &) { return QEMUMachine(g_engine, m.path()).VMToolsMachine::load(); }},
    {"deleteSnapshotFiles", [](QEMUMachine &m, const QJsonValue &) { return m.deleteSnapshotFiles(); }},
    {"killQemu", [](QEMUMachine &m, const QJsonValue &) { m.refreshRunData(); return QJsonArray{m.killQemu(), m.adbPort()}; }},
    {"waitForQemuEnd", [](QEMUMachine &m, const QJsonValue &) { m.waitForQemuEnd(); return QJsonValue(); }},
    {"writeLockFile", [](QEMUMachine &m, const QJsonValue &v) { return m.writeLockFile(7, v.toInt()); }},
    {"start", [](QEMUMachine &m, const QJsonValue &v) { return m.start(v.toString(), {}, 7); }},
    {"createSystemDisk", [](QEMUMachine &m, const QJsonValue &files) {  // these files in the image's reference folder
        const QString reference = systemImageDirectory(testImage().osVersion, testImage().imageVersion);
        for (const QJsonValue &name : files.toArray())
            writeFile(reference + "/" + name.toString(), "x");
        const bool made = m.createSystemDisk(testImage());
        return QDir(QFileInfo(reference).path()).removeRecursively() && made;
    }},
    {"setSdCardInserted", [](QEMUMachine &m, const QJsonValue &v) { return QJsonArray{m.setSdCardInserted(v.toBool()), m.isSdCardInserted()}; }},
    {"setSdCardSize", [](QEMUMachine &m, const QJsonValue &v) { return QJsonArray{m.setSdCardSize(v.toInt()), m.sdCardSize()}; }},
    {"ports", [](QEMUMachine &m, const QJsonValue &refresh) {  // as a new machine object of the folder sees them
        QEMUMachine q(g_engine, m.path());
        if (refresh.toBool())
            q.refreshRunData();
        return QJsonArray{q.status(), q.adbPort(), q.forwardedPort1(), q.forwardedPort2(), q.forwardedPort3(), q.forwardedPort4(),
                          q.forwardedPort5(), q.forwardedPort6(), q.forwardedPort7(), q.qmpPort()};
    }},
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
    QTemporaryDir m_home, m_bin;
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
        // This test stands in for the engine's QEMU: a lock naming its pid reads as a running
        // device. No qemu-img: every disk step fails.
        qputenv("QV_QEMU_BIN_DIR", m_bin.path().toUtf8());
        QVERIFY(QFile::link(QCoreApplication::applicationFilePath(), m_bin.filePath("qemu-system-x86_64")));
        m_engine = std::make_unique<QEMUEngine>();
        g_engine = m_engine.get();
    }

    // Rows: operation, value, path in device.json -> value it holds, the reload's value if another.
    void setterRewritesDeviceJson_data()
    {
        QTest::addColumn<QJsonArray>("row");
        const QJsonArray rows = QJsonDocument::fromJson(fileContents(QV_TEST_DATA_DIR "/engine/setters.json")).array();
        QCOMPARE(rows.size(), operations.size());
        for (const QJsonValue &row : rows)
            QTest::newRow(qPrintable(row[0].toString())) << row.toArray();
    }
    void setterRewritesDeviceJson()
    {
        QFETCH(QJsonArray, row);
        const auto operation = operations.value(row[0].toString());
        const QJsonObject changes = row[2].toObject();
        QTemporaryDir dir;
        auto machine = newMachine(dir);
        QVERIFY(machine && operation.first);
        QJsonValue expected = jsonFileObject(machine->deviceJsonPath());
        for (auto it = changes.begin(); it != changes.end(); ++it)
            expected = withChange(expected, it.key().split('/'), it.value());

        // Blanked first, so that only a real rewrite brings the whole file back.
        QVERIFY(writeFile(machine->deviceJsonPath(), "{}"));
        QVERIFY(operation.first(*machine, row[1]));
        QCOMPARE(QJsonValue(jsonFileObject(machine->deviceJsonPath())), expected);
        QEMUMachine reloaded(m_engine.get(), machine->path());
        QVERIFY(reloaded.load());
        QCOMPARE(operation.second(reloaded), row.size() > 3 ? row[3] : row[1]);
    }

    // An operation on a device folder prepared by the row ("files", "$PID": this test's pid;
    // "sdCard": the profile's card size; "fileSizeLimit" in bytes): its "result", the whole
    // "log" and the files "after" it (null: absent).
    void folderOperation_data() { addCaseRows("engine/machine.json"); }
    void folderOperation()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        QEMUMachine machine(m_engine.get(), dir.filePath("dev"), testProfile(256, 1, c["sdCard"].toInt()), testImage());
        const QJsonObject files = c["files"].toObject(), after = c["after"].toObject();
        for (auto it = files.begin(); it != files.end(); ++it)
            QVERIFY(writeFile(dir.filePath("dev/" + it.key()), it->toString().replace("$PID", QString::number(QCoreApplication::applicationPid())).toUtf8()));
        rlimit saved{};
        QVERIFY(getrlimit(RLIMIT_FSIZE, &saved) == 0 && signal(SIGXFSZ, SIG_IGN) != SIG_ERR);
        const rlimit limit{c.contains("fileSizeLimit") ? rlim_t(c["fileSizeLimit"].toInt()) : saved.rlim_cur, saved.rlim_max};
        LogCapture log;
        QVERIFY(setrlimit(RLIMIT_FSIZE, &limit) == 0);
        const QJsonValue result = folderOperations[c["op"].toString()](machine, c["value"]);
        QVERIFY(setrlimit(RLIMIT_FSIZE, &saved) == 0);
        QCOMPARE(result, c["result"]);
        QV_COMPARE_JSON(QJsonArray::fromStringList(log.all().replaceInStrings(dir.path(), "D").replaceInStrings(m_bin.path(), "B").replaceInStrings(m_home.path(), "H")), c["log"].toArray());
        for (auto it = after.begin(); it != after.end(); ++it)
            QCOMPARE(QFileInfo::exists(dir.filePath("dev/" + it.key())) ? QJsonValue(QString(fileContents(dir.filePath("dev/" + it.key())))) : QJsonValue(), it.value());
    }

    // A device without configuration: quick boot on, the other switches off; hosts that talk
    // to the base machine get the guest's own ADB port. Without a display the display values
    // are 0 and their setters have nothing to save.
    void defaults()
    {
        QTemporaryDir dir;
        HwProfile profile = testProfile();
        profile.displays.clear();
        auto machine = newMachine(dir, profile);
        QVERIFY(machine && writeFile(machine->deviceJsonPath(), "{}"));
        QCOMPARE((QList<bool>{machine->isQuickbootEnabled(), machine->isFullscreen(), machine->isVirtualKeyboardEnabled(), machine->isSdCardInserted(),
                              machine->isHardwareEditable(), machine->usesSoftwareNavigationKeys(), machine->supportsHotResize(), machine->supportsPause(),
                              machine->supportsSdCard(), machine->supportsFactoryReset(), machine->setBottomCornerRadius(1), machine->setTopCornerRadius(1),
                              machine->setContentPadding(1), machine->setDisplayDensity(1), machine->setDisplaySize({1, 1}), machine->setFirstDisplay({}), machine->hasSnapshot()}),
                 (QList<bool>{true, false, false, false, true, true, false, false, true, true, true, true, true, true, true, true, false}));
        QCOMPARE((QList<qint64>{machine->VMToolsMachine::adbPort(), machine->bottomCornerRadius(), machine->topCornerRadius(), machine->contentPadding(),
                                machine->displayDensity(), machine->uptimeMs(), machine->lastStartError().code, machine->lastRuntimeError().code}),
                 (QList<qint64>{5555, 0, 0, 0, 0, -1, 0, 0}));
        QCOMPARE(fileContents(machine->deviceJsonPath()), QByteArray("{}"));
    }

    // QMP's socket lies in the device folder while that path fits a socket address (107 bytes),
    // else under a name of 16 hex digits in a runtime folder only its owner may enter, which is logged.
    void qmpSocketPlace()
    {
        QTemporaryDir runtime;
        qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8());
        for (const int bytes : {107, 108}) {
            const QString device = m_home.filePath(QString(bytes - m_home.path().size() - 10, 'n'));
            LogCapture log;
            const QFileInfo socket(qmpSocketPath(device));
            QCOMPARE((QStringList{socket.path(), QString::number(socket.fileName().size()), QString::number(QFile::permissions(socket.path()), 16), log.dump()}),
                     (bytes == 107 ? QStringList{device, "8", "0", ""} : QStringList{runtime.filePath("quorvel-qmp"), "21", "7700",
                      "debug: [VMTools] The path of " + device + " is too long for a socket: its QMP socket is " + socket.filePath()}));
        }
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
