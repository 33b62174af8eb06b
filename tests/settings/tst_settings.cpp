#include "casetable.h"
#include "fileutils.h"
#include "hostdirectories.h"
#include "jsonsettings.h"
#include "multisettings.h"
#include "playerfeaturesconfig.h"
#include "productlinks.h"
#include "settingsmigration.h"

#include <sys/fsuid.h>

static const char MigrateAndWrite[] = "--migrate-and-write";

// Damaged copies are kept under names that hold the second ("%T"); rows that keep one start at a fresh second.
static QString keepingSecond(const QJsonObject &c)
{
    QThread::msleep(QJsonDocument(c["log"].toArray()).toJson().contains("%T") ? 1000 - QTime::currentTime().msec() : 0);
    return QDateTime::currentDateTime().toString("yyyyMMdd-HHmmss");
}

class tst_Settings : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home, m_config;

private slots:
    void initTestCase()
    {
        qputenv("QV_HOME", QFile::encodeName(m_home.path()));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_config.path()));
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_config.path());
        qputenv("QV_FEATURE_FLAGS", "beta-ui; -quickboot-ui");
    }

    void jsonSettings_data() { addCaseRows("settings/jsonsettings.json"); }
    void jsonSettings()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        const QString path = dir.filePath(c["path"].toString("s.json"));
        const QByteArray initial = c["initial"].toString().toUtf8();
        QVERIFY(!c.contains("initial") || writeFile(path, initial));
        JsonSettings store(path, c["readOnly"].toBool());
        // Root reads any file, so for the writes a root run takes the rights of nobody.
        const uint owner = QFileInfo(dir.path()).ownerId();
        const bool unreadable = c["unreadable"].toBool();
        QVERIFY(!unreadable || (QFile::setPermissions(path, {}) && QFile::setPermissions(dir.path(), QFileDevice::Permissions(0x7777))));
        setfsuid(unreadable && owner == 0 ? 65534 : owner);
        const QList<QPair<QString, QString>> names{{"%1", path}, {"%T", keepingSecond(c)}};
        for (const QJsonValue &kept : expand(c["kept"], names).toArray())  // copies kept earlier in that second
            QVERIFY(writeFile(kept.toString(), "old"));
        LogCapture capture;
        withFileSizeLimit(c["fileSizeLimit"].toInt(-1), [&] {  // a full disk
            for (const QJsonValue &write : c["writes"].toArray())
                store.setValue(write[0].toString().split('/'), write[1].toVariant());
            return 0;
        });
        setfsuid(owner), QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], names).toArray());
        // Unchanged unless a whole new object is expected.
        QCOMPARE(fileContents(path), c.contains("expected") ? QJsonDocument(c["expected"].toObject()).toJson() : initial);
        const QJsonObject object = jsonFileObject(path);
        for (auto it = object.begin(); it != object.end(); ++it)
            QVERIFY(store.contains(it.key()) && QJsonValue::fromVariant(store.value(it.key(), 7)) == it.value());
        QVERIFY(!store.contains("absent") && store.value("absent", 7) == QVariant(7));
    }

    void concurrentWriters()
    {
        // Hosts starting together: one of them migrates, none loses a write, none reads a
        // partial file, and nothing is left beside the file.
        for (int round = 0; round < 6; ++round) {
            QTemporaryDir dir;
            QJsonObject expected = jsonFileObject(QV_TEST_DATA_DIR "/settings/legacy-migrated.json");
            QProcess hosts[4];
            for (int i = 0; i < 4; ++i)
                hosts[i].start(QCoreApplication::applicationFilePath(), {MigrateAndWrite, dir.filePath("s.json"), expected.insert(QString("host%1").arg(i), 19).key()});
            int migrations = 0;
            for (QProcess &host : hosts)
                migrations += host.waitForFinished(30000) && host.exitCode() == 0 ? QString(host.readAllStandardError()).count("Migrating settings") : 9;
            QCOMPARE(migrations, 1);
            QV_COMPARE_JSON(jsonFileObject(dir.filePath("s.json")), expected);
            QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"s.json"});
        }
    }

    void multiSettings_data() { addCaseRows("settings/multisettings.json"); }
    void multiSettings()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        const QString iniPath = dir.filePath("quorvel.ini"), userPath = dir.filePath("settings.json");
        QVERIFY(writeFile(dir.filePath("defaults.json"),
                          R"({"d": 1, "both": "default", "virtualbox.host_only_interface_name": "fromdefaults"})"));
        QVERIFY(!c.contains("user") || writeFile(userPath, QJsonDocument(c["user"].toObject()).toJson()));
        const QString ini = c["ini"].toString();
        QVERIFY(!c.contains("ini") || (ini == "/" ? QDir().mkpath(iniPath) : writeFile(iniPath, ini.toUtf8())));
        LogCapture capture;
        const QString key = "virtualbox.host_only_interface_name";
        MultiSettings settings(QSharedPointer<JsonSettings>::create(dir.filePath("defaults.json"), true),
                               QSharedPointer<JsonSettings>::create(userPath, false),
                               QSharedPointer<QSettings>::create(iniPath, QSettings::IniFormat), {key});
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], {{"%1", iniPath}, {"%2", userPath}}).toArray());
        QV_COMPARE_JSON(jsonFileObject(userPath), c["userAfter"].toObject());
        QCOMPARE(QJsonValue::fromVariant(QSettings(iniPath, QSettings::IniFormat).value(key)), c["iniAfter"]);
        // Every read passes the default 5.
        QJsonObject reads;
        for (const QString &read : c["reads"].toObject().keys())
            reads.insert(read, QJsonValue::fromVariant(settings.value(read, 5)));
        QV_COMPARE_JSON(reads, c["reads"].toObject());
    }

    void migration_data() { addCaseRows("settings/migration.json"); }
    void migration()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        const QString path = dir.filePath("settings.json");
        const QByteArray initial = c["initial"].toString().toUtf8();
        QVERIFY(writeFile(path, initial));
        QSettings source(QV_TEST_DATA_DIR "/settings/" + c["legacy"].toString(), QSettings::IniFormat);
        JsonSettings target(path, false);
        const QString second = keepingSecond(c);
        LogCapture capture;
        migrateSettings(source, target);
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], {{"%1", path}, {"%T", second}}).toArray());
        const QString golden = QString::fromUtf8(fileContents(QV_TEST_DATA_DIR "/settings/" + c["expected"].toString()));
        QCOMPARE(QString::fromUtf8(fileContents(path)), c.contains("expected")
                 ? QString(golden).replace("%HOME", QDir::homePath()).replace("%DEPLOYED", deployedDirectory()) : initial);
        QCOMPARE(fileHash(source.fileName()), fileHash(QV_TEST_DATA_DIR "/settings/" + c["legacy"].toString()));
    }

    void featureFlags_data() { addCaseRows("settings/featureflags.json"); }
    void featureFlags()
    {
        QV_FETCH_CASE;
        const PlayerFeaturesConfig config(c["settings"].toVariant().toStringList(), c["env"].toString());
        QCOMPARE(config.enabledFlags(), c["enabled"].toVariant().toStringList());
        for (const QString &flag : config.enabledFlags())
            QVERIFY(config.isEnabled(" " + flag.toUpper() + " "));
        QVERIFY(!config.isEnabled("absent"));
    }

    void productLinks_data() { addCaseRows("settings/productlinks.json"); }
    void productLinks()
    {
        QV_FETCH_CASE;
        qputenv("QV_WEBSITE_URL", c["override"].toString().toUtf8());
        LogCapture capture;
        const QJsonArray links{ProductLinks::webSite().toString(), ProductLinks::downloadLinkHtml()};
        qunsetenv("QV_WEBSITE_URL");
        QV_COMPARE_JSON(links, c["links"].toArray());
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], {{"%1", c["override"].toString()}}).toArray());
    }

    void assembledStore()
    {
        QSettings legacy(QStringLiteral("Lumarik"), QStringLiteral("Quorvel"));
        legacy.setValue("vms.path", "/legacy/vms");
        legacy.setValue("stats.send.stats", false);
        legacy.sync();
        QVERIFY(writeFile(homeDirectory() + "/settings.json", R"({"player.feature_flags": ["Quickboot-UI", "snapshots"]})"));
        LogCapture capture;
        MultiSettings *store = settings();
        QCOMPARE(capture.dump(), QStringLiteral("critical: Migrating settings since version is 0 but expect version 1"));
        QCOMPARE((QStringList{store->userSettings()->path(), store->defaultSettings()->path(), store->installPathSettings()->fileName()}),
                 (QStringList{homeDirectory() + "/settings.json", ":/settings.json", applicationDirectory() + "/quorvel.ini"}));
        QVERIFY(store->defaultSettings()->isReadOnly() && !store->userSettings()->isReadOnly() && settings() == store);
        QCOMPARE(store->iniKeys(), QSet<QString>{"virtualbox.host_only_interface_name"});
        QJsonArray values;
        for (const char *key : {"virtual_devices.directory", "stats.enabled", "quickboot.enabled", "version", "player.feature_flags"})
            values.append(QJsonValue::fromVariant(store->value(key)));
        QV_COMPARE_JSON(values, (QJsonArray{"/legacy/vms", false, true, 1, QJsonArray{"Quickboot-UI", "snapshots"}}));
        QCOMPARE(playerFeatures().enabledFlags(), QStringList({"beta-ui", "snapshots"}));
    }
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc == 4 && qstrcmp(argv[1], MigrateAndWrite) == 0) {  // a host starting up, then changing a setting
        QSettings legacy(QV_TEST_DATA_DIR "/settings/legacy.ini", QSettings::IniFormat);
        JsonSettings user(QString::fromLocal8Bit(argv[2]), false);
        migrateSettings(legacy, user);
        for (int k = 0; k < 20; ++k) {
            user.setValue(argv[3], k);
            if (user.value(argv[3]) != k)  // read back while the others write
                return 1;
        }
        return 0;
    }
    tst_Settings test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_settings.moc"
