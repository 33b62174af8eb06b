#include "hostdirectories.h"
#include "vmtoolsengine.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLibrary>
#include <QtTest>

// Loads the module as a host application does: by file name at run time, resolving the
// one exported function, and using the engine through its virtual operations only.
class tst_Plugin : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void entryPointGivesNewEngines();
    void settingsReachTheModule();

private:
    using EntryPoint = VMToolsEngine *(*)();

    QTemporaryDir m_home;
    QTemporaryDir m_qemuBin;
    QLibrary m_library;
    EntryPoint m_entry = nullptr;
};

void tst_Plugin::initTestCase()
{
    QVERIFY(m_home.isValid() && m_qemuBin.isValid());
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home.filePath(QStringLiteral("xdg"))));
    // An empty program directory: nothing here may start a real QEMU.
    qputenv("QV_QEMU_BIN_DIR", QFile::encodeName(m_qemuBin.path()));

    m_library.setFileName(QStringLiteral(QV_PLUGIN_FILE));
    QVERIFY2(m_library.load(), qPrintable(m_library.errorString()));
    m_entry = reinterpret_cast<EntryPoint>(m_library.resolve("getVMToolsEngine"));
    QVERIFY2(m_entry, qPrintable(m_library.errorString()));
}

void tst_Plugin::entryPointGivesNewEngines()
{
    std::unique_ptr<VMToolsEngine> first(m_entry());
    std::unique_ptr<VMToolsEngine> second(m_entry());
    QVERIFY(first && second);
    QVERIFY(first.get() != second.get());

    QCOMPARE(first->name(), QStringLiteral("QEMU"));
    QCOMPARE(first->sdcardDiskName(), QStringLiteral("sdcard.qcow2"));
    QCOMPARE(second->name(), QStringLiteral("QEMU"));
    QVERIFY(first->auxiliaryList1().isEmpty());
    QVERIFY(!first->machineExists(QStringLiteral("no-such-device")));
    QVERIFY(first->listMachines({}).isEmpty());
}

// The module carries its own settings store: the user's file in the home directory is read
// through it, and the built-in defaults resource is registered once the store is used.
void tst_Plugin::settingsReachTheModule()
{
    const QString devices = m_home.filePath(QStringLiteral("my-devices"));
    QFile file(homeDirectory() + QStringLiteral("/settings.json"));
    QJsonObject object = file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object()
                                                        : QJsonObject();
    file.close();
    object.insert(QStringLiteral("virtual_devices.directory"), devices);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(QJsonDocument(object).toJson());
    file.close();

    std::unique_ptr<VMToolsEngine> engine(m_entry());
    QCOMPARE(engine->devicesDirectory().path(), devices);
}

QTEST_GUILESS_MAIN(tst_Plugin)
#include "tst_plugin.moc"
