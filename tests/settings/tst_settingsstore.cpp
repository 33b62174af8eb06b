#include "hostdirectories.h"
#include "logcapture.h"
#include "multisettings.h"
#include "playerfeaturesconfig.h"

#include <QtTest>

#include <thread>
#include <vector>

// The process-wide store: assembled once, from the real file locations, with the legacy
// native store carried over. Everything lives under temporary directories.
class tst_SettingsStore : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void assembledOnceAcrossThreads();
    void layersSitWhereHostsExpectThem();
    void legacySettingsAreCarriedOver();
    void featureFlagsComeFromSettingsAndEnvironment();

private:
    QTemporaryDir m_home;
    QTemporaryDir m_config;
    MultiSettings *m_settings = nullptr;
};

void tst_SettingsStore::initTestCase()
{
    QVERIFY(m_home.isValid() && m_config.isValid());
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_config.path()));
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_config.path());
    qputenv("QV_FEATURE_FLAGS", "beta-ui; -quickboot-ui");

    QSettings legacy(QStringLiteral("Lumarik"), QStringLiteral("Quorvel"));
    legacy.setValue(QStringLiteral("vms.path"), QStringLiteral("/legacy/vms"));
    legacy.setValue(QStringLiteral("stats.send.stats"), false);
    legacy.sync();
    QVERIFY2(legacy.fileName().startsWith(m_config.path()), qPrintable(legacy.fileName()));

    const QString home = m_home.path() + QStringLiteral("/.Lumarik/Quorvel");
    QVERIFY(QDir().mkpath(home));
    QFile user(home + QStringLiteral("/settings.json"));
    QVERIFY(user.open(QIODevice::WriteOnly));
    user.write(R"({"player.feature_flags": ["Quickboot-UI", "snapshots"]})");
}

void tst_SettingsStore::assembledOnceAcrossThreads()
{
    LogCapture log;
    std::vector<MultiSettings *> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = settings(); });
    for (std::thread &t : threads)
        t.join();
    m_settings = settings();
    QVERIFY(m_settings);
    for (MultiSettings *s : seen)
        QCOMPARE(s, m_settings);
    QCOMPARE(log.count("Migrating settings since version is 0 but expect version 1"), 1);
}

void tst_SettingsStore::layersSitWhereHostsExpectThem()
{
    QVERIFY(m_settings);
    QCOMPARE(m_settings->userSettings()->path(), homeDirectory() + "/settings.json");
    QVERIFY(!m_settings->userSettings()->isReadOnly());
    QCOMPARE(m_settings->defaultSettings()->path(), QStringLiteral(":/settings.json"));
    QVERIFY(m_settings->defaultSettings()->isReadOnly());
    QCOMPARE(m_settings->installPathSettings()->fileName(), applicationDirectory() + "/quorvel.ini");
    QCOMPARE(m_settings->installPathSettings()->format(), QSettings::IniFormat);
    QCOMPARE(m_settings->iniKeys(), QSet<QString>{"virtualbox.host_only_interface_name"});
    // Present only in the built-in defaults.
    QCOMPARE(m_settings->value("quickboot.enabled"), QVariant(true));
}

void tst_SettingsStore::legacySettingsAreCarriedOver()
{
    QVERIFY(m_settings);
    QCOMPARE(m_settings->value("virtual_devices.directory"), QVariant("/legacy/vms"));
    QCOMPARE(m_settings->value("stats.enabled"), QVariant(false));
    QCOMPARE(m_settings->userSettings()->value("version").toInt(), 1);
    QCOMPARE(m_settings->value("screencast.directory"), QVariant(QDir::homePath()));
}

void tst_SettingsStore::featureFlagsComeFromSettingsAndEnvironment()
{
    QVERIFY(m_settings);
    const PlayerFeaturesConfig &features = playerFeatures();
    QCOMPARE(features.enabledFlags(), QStringList({"beta-ui", "snapshots"}));
}

QTEST_GUILESS_MAIN(tst_SettingsStore)
#include "tst_settingsstore.moc"
