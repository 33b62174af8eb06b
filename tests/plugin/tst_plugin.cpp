#include "hostdirectories.h"
#include "testfiles.h"
#include "vmtoolsengine.h"

#include <QJsonDocument>
#include <QLibrary>
#include <QtTest>

// Loads the module by file name at run time, as hosts do, and uses the engine through
// its virtual operations only.
class tst_Plugin : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
private slots:
    void entryPointGivesNewEngines()
    {
        qputenv("QV_HOME", QFile::encodeName(m_home.path()));
        qputenv("QV_QEMU_BIN_DIR", QFile::encodeName(m_home.filePath("bin")));  // no QEMU here
        QLibrary library(QStringLiteral(QV_PLUGIN_FILE));
        auto entry = reinterpret_cast<VMToolsEngine *(*)()>(library.resolve("getVMToolsEngine"));
        QVERIFY2(entry, qPrintable(library.errorString()));
        std::unique_ptr<VMToolsEngine> first(entry()), second(entry());
        QVERIFY(first && second && first != second);
        const QString devices = m_home.filePath("my-devices");
        // The module's settings store reads the user's file, merged into what the store wrote.
        QJsonObject settings = jsonFileObject(homeDirectory() + "/settings.json");
        settings.insert("virtual_devices.directory", devices);
        QVERIFY(writeFile(homeDirectory() + "/settings.json", QJsonDocument(settings).toJson()));
        std::unique_ptr<VMToolsEngine> third(entry());
        settings.insert("virtual_devices.directory", "");
        QVERIFY(writeFile(homeDirectory() + "/settings.json", QJsonDocument(settings).toJson()));
        std::unique_ptr<VMToolsEngine> fourth(entry());
        QCOMPARE((QStringList{first->name(), first->sdcardDiskName(), second->name(), third->devicesDirectory().path(), fourth->devicesDirectory().path()}),
                 (QStringList{"QEMU", "sdcard.qcow2", "QEMU", devices, QDir(deployedDirectory()).path()}));
    }
};

QTEST_GUILESS_MAIN(tst_Plugin)
#include "tst_plugin.moc"
