#include "hostdirectories.h"
#include "jsonsettings.h"
#include "logcapture.h"
#include "settingsmigration.h"

#include <QtTest>

namespace {

QJsonObject objectIn(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(f.readAll()).object() : QJsonObject();
}

const QString MigrationLine = QStringLiteral("Migrating settings since version is 0 but expect version 1");

} // namespace

class tst_SettingsMigration : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void emptyLegacyWritesEveryDefault();
    void fullLegacyStore();
    void legacyValuesAreConverted_data();
    void legacyValuesAreConverted();
    void hypervisorFollowsHostOnlyInterface_data();
    void hypervisorFollowsHostOnlyInterface();
    void migratedStoreIsNeverTouched_data();
    void migratedStoreIsNeverTouched();
    void keepsUnrelatedUserKeys();

private:
    QTemporaryDir m_home;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QSettings> m_legacy;
    std::unique_ptr<JsonSettings> m_target;
};

void tst_SettingsMigration::initTestCase()
{
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
}

void tst_SettingsMigration::init()
{
    // The legacy store is an INI file here: migrateSettings only sees the QSettings API.
    m_legacy.reset();
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_legacy = std::make_unique<QSettings>(m_dir->filePath("legacy.conf"), QSettings::IniFormat);
    m_target = std::make_unique<JsonSettings>(m_dir->filePath("settings.json"), false);
}

void tst_SettingsMigration::emptyLegacyWritesEveryDefault()
{
    LogCapture log;
    migrateSettings(*m_legacy, *m_target);
    QCOMPARE(log.lines(QtCriticalMsg), QStringList{MigrationLine});

    const QJsonObject expected{
            {"android_sdk.path", ""},
            {"android_sdk.enabled", false},
            {"credentials.password", ""},
            {"credentials.email", ""},
            {"eula.id-agreed", 0},
            {"virtualbox.host_only_interface_name", ""},
            {"proxy.authentication.enabled", false},
            {"proxy.authentication.password", ""},
            {"proxy.authentication.username", ""},
            {"proxy.enabled", false},
            {"proxy.host", ""},
            {"proxy.port", 0},
            {"proxy.type", ""},
            {"screencast.directory", QDir::homePath()},
            {"stats.enabled", true},
            {"clipboard.sharing-enabled", true},
            {"stats.installation_timestamp", 0},
            {"stats.last_update_timestamp", 0},
            {"trusted.hosts", ""},
            {"virtual_devices.directory", deployedDirectory()},
            {"changelog.last_seen_version", ""},
            {"version", 1}};
    QCOMPARE(objectIn(m_target->path()), expected);
    QVERIFY(deployedDirectory().startsWith(QDir(m_home.path()).absolutePath()));
}

void tst_SettingsMigration::fullLegacyStore()
{
    // Every row's old key, as an earlier release left them (text values, an unknown key).
    const QString fixtures = QStringLiteral(QV_TEST_DATA_DIR "/settings/");
    QSettings legacy(fixtures + "legacy.ini", QSettings::IniFormat);
    QCOMPARE(legacy.status(), QSettings::NoError);
    migrateSettings(legacy, *m_target);
    QCOMPARE(objectIn(m_target->path()), objectIn(fixtures + "legacy-migrated.json"));
}

void tst_SettingsMigration::legacyValuesAreConverted_data()
{
    QTest::addColumn<QString>("oldKey");
    QTest::addColumn<QVariant>("legacyValue");
    QTest::addColumn<QString>("newKey");
    QTest::addColumn<QJsonValue>("expected");

    QTest::newRow("password bytes as base64") << "credentials.password" << QVariant(QByteArray("p\0\xffw", 4))
                                              << "credentials.password" << QJsonValue("cAD/dw==");
    QTest::newRow("int not a number") << "proxy.port" << QVariant("abc") << "proxy.port" << QJsonValue(0);
    QTest::newRow("bool from zero") << "shared.clipboard" << QVariant(0) << "clipboard.sharing-enabled"
                                    << QJsonValue(false);
}

void tst_SettingsMigration::legacyValuesAreConverted()
{
    QFETCH(QString, oldKey);
    QFETCH(QVariant, legacyValue);
    QFETCH(QString, newKey);
    QFETCH(QJsonValue, expected);
    m_legacy->setValue(oldKey, legacyValue);
    m_legacy->sync();
    // Read back from disk, as the real store would be.
    QSettings legacy(m_legacy->fileName(), QSettings::IniFormat);

    migrateSettings(legacy, *m_target);
    const QJsonObject migrated = objectIn(m_target->path());
    QCOMPARE(migrated.value(newKey), expected);
    QCOMPARE(migrated.size(), 22);
    QCOMPARE(migrated.value("version"), QJsonValue(1));
}

void tst_SettingsMigration::hypervisorFollowsHostOnlyInterface_data()
{
    QTest::addColumn<QVariant>("interfaceName");  // invalid: absent
    QTest::addColumn<bool>("virtualbox");
    QTest::newRow("named") << QVariant("VirtualBox Host-Only Ethernet Adapter") << true;
    QTest::newRow("empty") << QVariant("") << false;
    QTest::newRow("absent") << QVariant() << false;
}

void tst_SettingsMigration::hypervisorFollowsHostOnlyInterface()
{
    QFETCH(QVariant, interfaceName);
    QFETCH(bool, virtualbox);
    if (interfaceName.isValid())
        m_legacy->setValue(QStringLiteral("host.only.interface"), interfaceName);
    migrateSettings(*m_legacy, *m_target);
    const QJsonObject migrated = objectIn(m_target->path());
    QCOMPARE(migrated.contains("hypervisor"), virtualbox);
    if (virtualbox)
        QCOMPARE(migrated.value("hypervisor"), QJsonValue("virtualbox"));
}

void tst_SettingsMigration::migratedStoreIsNeverTouched_data()
{
    QTest::addColumn<QByteArray>("store");
    QTest::newRow("version 1") << QByteArray("{\"version\": 1, \"proxy.host\": \"kept\"}");
    QTest::newRow("newer version") << QByteArray("{\"version\": 2}");
}

void tst_SettingsMigration::migratedStoreIsNeverTouched()
{
    QFETCH(QByteArray, store);
    QFile file(m_target->path());
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(store) == store.size());
    file.close();
    m_legacy->setValue(QStringLiteral("proxy.host"), QStringLiteral("legacy"));
    m_legacy->setValue(QStringLiteral("host.only.interface"), QStringLiteral("vboxnet0"));

    LogCapture log;
    migrateSettings(*m_legacy, *m_target);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), store);
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));

    // And a first migration is the last one.
    migrateSettings(*m_legacy, *m_target);
    QVERIFY(log.entries().isEmpty());
}

void tst_SettingsMigration::keepsUnrelatedUserKeys()
{
    m_target->setValue(QStringLiteral("quickboot.enabled"), false);
    m_target->setValue(QStringLiteral("proxy.host"), QStringLiteral("user"));
    migrateSettings(*m_legacy, *m_target);
    const QJsonObject migrated = objectIn(m_target->path());
    QCOMPARE(migrated.value("quickboot.enabled"), QJsonValue(false));
    // Every row is written, so a legacy default replaces what the JSON store held.
    QCOMPARE(migrated.value("proxy.host"), QJsonValue(""));
    QCOMPARE(migrated.value("version"), QJsonValue(1));

    LogCapture log;
    migrateSettings(*m_legacy, *m_target);
    QVERIFY(log.entries().isEmpty());
}

QTEST_GUILESS_MAIN(tst_SettingsMigration)
#include "tst_settingsmigration.moc"
