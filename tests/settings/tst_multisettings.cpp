#include "logcapture.h"
#include "multisettings.h"

#include <QtTest>

namespace {

const QString HostOnlyKey = QStringLiteral("virtualbox.host_only_interface_name");

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

// The three layers over files in one temporary directory.
struct Layers
{
    QTemporaryDir dir;
    QString defaultsPath = dir.filePath("defaults.json");
    QString userPath = dir.filePath("settings.json");
    QString iniPath = dir.filePath("quorvel.ini");

    std::unique_ptr<MultiSettings> make()
    {
        return std::make_unique<MultiSettings>(
                QSharedPointer<JsonSettings>::create(defaultsPath, true),
                QSharedPointer<JsonSettings>::create(userPath, false),
                QSharedPointer<QSettings>::create(iniPath, QSettings::IniFormat),
                QSet<QString>{HostOnlyKey});
    }
    QVariant iniValue(const QString &key) const { return QSettings(iniPath, QSettings::IniFormat).value(key); }
    QVariant userValue(const QString &key) const { return JsonSettings(userPath, true).value(key); }
};

} // namespace

class tst_MultiSettings : public QObject
{
    Q_OBJECT
private slots:
    void firstMatchWins_data();
    void firstMatchWins();
    void reconcileAtConstruction_data();
    void reconcileAtConstruction();
    void brokenInstallPathFileIsReported_data();
    void brokenInstallPathFileIsReported();
    void malformedUserFileFallsThrough();
    void builtInDefaults();
};

void tst_MultiSettings::firstMatchWins_data()
{
    QTest::addColumn<QByteArray>("defaults");
    QTest::addColumn<QByteArray>("user");
    QTest::addColumn<QByteArray>("ini");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("callerDefault");
    QTest::addColumn<QVariant>("expected");

    const QByteArray bothHaveIt = R"({"stats.enabled": true})";
    QTest::newRow("user over defaults") << bothHaveIt << QByteArray(R"({"stats.enabled": false})") << QByteArray()
                                        << "stats.enabled" << QVariant(true) << QVariant(false);
    QTest::newRow("defaults over caller") << bothHaveIt << QByteArray("{}") << QByteArray()
                                          << "stats.enabled" << QVariant(false) << QVariant(true);
    QTest::newRow("caller default last") << bothHaveIt << QByteArray("{}") << QByteArray()
                                         << "virtual_devices.directory" << QVariant("/fallback") << QVariant("/fallback");
    QTest::newRow("user null still wins") << bothHaveIt << QByteArray(R"({"stats.enabled": null})") << QByteArray()
                                          << "stats.enabled" << QVariant(true) << QVariant::fromValue(nullptr);
    QTest::newRow("INI key from the INI file")
            << QByteArray() << QByteArray(R"({"virtualbox.host_only_interface_name": "user"})")
            << QByteArray("[General]\nvirtualbox.host_only_interface_name=vboxnet3\n")
            << HostOnlyKey << QVariant("x") << QVariant("vboxnet3");
    // Missing from the INI file: invalid, even with a caller default and a value elsewhere.
    QTest::newRow("INI key missing ignores caller default")
            << QByteArray(R"({"virtualbox.host_only_interface_name": "from-defaults"})") << QByteArray("{}")
            << QByteArray() << HostOnlyKey << QVariant("caller") << QVariant();
}

void tst_MultiSettings::firstMatchWins()
{
    QFETCH(QByteArray, defaults);
    QFETCH(QByteArray, user);
    QFETCH(QByteArray, ini);
    QFETCH(QString, key);
    QFETCH(QVariant, callerDefault);
    QFETCH(QVariant, expected);
    Layers layers;
    QVERIFY(layers.dir.isValid());
    if (!defaults.isNull())
        QVERIFY(writeFile(layers.defaultsPath, defaults));
    if (!user.isNull())
        QVERIFY(writeFile(layers.userPath, user));
    if (!ini.isNull())
        QVERIFY(writeFile(layers.iniPath, ini));

    const auto facade = layers.make();
    const QVariant actual = facade->value(key, callerDefault);
    QCOMPARE(actual.isValid(), expected.isValid());
    QCOMPARE(actual, expected);
}

void tst_MultiSettings::reconcileAtConstruction_data()
{
    QTest::addColumn<QVariant>("user");      // invalid: absent
    QTest::addColumn<QVariant>("ini");       // invalid: absent
    QTest::addColumn<QVariant>("expectedUser");
    QTest::addColumn<QVariant>("expectedIni");

    QTest::newRow("user only goes to INI") << QVariant("vboxnet1") << QVariant() << QVariant("vboxnet1") << QVariant("vboxnet1");
    QTest::newRow("INI only goes to user") << QVariant() << QVariant("vboxnet2") << QVariant("vboxnet2") << QVariant("vboxnet2");
    QTest::newRow("empty user name counts") << QVariant("") << QVariant() << QVariant("") << QVariant("");
    QTest::newRow("both kept apart") << QVariant("a") << QVariant("b") << QVariant("a") << QVariant("b");
    QTest::newRow("neither") << QVariant() << QVariant() << QVariant() << QVariant();
}

void tst_MultiSettings::reconcileAtConstruction()
{
    QFETCH(QVariant, user);
    QFETCH(QVariant, ini);
    QFETCH(QVariant, expectedUser);
    QFETCH(QVariant, expectedIni);
    Layers layers;
    QVERIFY(layers.dir.isValid());
    if (user.isValid())
        JsonSettings(layers.userPath, false).setValue(HostOnlyKey, user);
    if (ini.isValid())
        QSettings(layers.iniPath, QSettings::IniFormat).setValue(HostOnlyKey, ini);

    const auto facade = layers.make();
    // Read through fresh objects: the change must be on disk, not only in memory.
    QCOMPARE(layers.userValue(HostOnlyKey), expectedUser);
    QCOMPARE(layers.iniValue(HostOnlyKey), expectedIni);
    QCOMPARE(QFileInfo::exists(layers.userPath), expectedUser.isValid());
    QCOMPARE(QFileInfo::exists(layers.iniPath), expectedIni.isValid());
    QCOMPARE(facade->value(HostOnlyKey), expectedIni);
}

void tst_MultiSettings::brokenInstallPathFileIsReported_data()
{
    QTest::addColumn<bool>("asDirectory");
    QTest::addColumn<int>("status");
    QTest::newRow("unreadable") << true << int(QSettings::AccessError);
    QTest::newRow("malformed") << false << int(QSettings::FormatError);
}

void tst_MultiSettings::brokenInstallPathFileIsReported()
{
    QFETCH(bool, asDirectory);
    QFETCH(int, status);
    Layers layers;
    QVERIFY(layers.dir.isValid());
    if (asDirectory)
        QVERIFY(QDir().mkpath(layers.iniPath));
    else
        QVERIFY(writeFile(layers.iniPath, "[General\n\"a=\x01\n"));
    QVERIFY(writeFile(layers.userPath, R"({"stats.enabled": false})"));

    LogCapture log;
    const auto facade = layers.make();
    const QString warning = QStringLiteral("Cannot init install path settings (status=%1) %2").arg(status).arg(layers.iniPath);
    QVERIFY2(log.contains(QtWarningMsg, warning), qPrintable(log.dump()));
    // The other layers keep working.
    QCOMPARE(facade->value("stats.enabled", true), QVariant(false));
}

void tst_MultiSettings::malformedUserFileFallsThrough()
{
    Layers layers;
    QVERIFY(layers.dir.isValid());
    QVERIFY(writeFile(layers.defaultsPath, R"({"quickboot.enabled": true})"));
    QVERIFY(writeFile(layers.userPath, R"({"quickboot.enabled": false,)"));
    const auto facade = layers.make();
    QCOMPARE(facade->value("quickboot.enabled"), QVariant(true));
    QCOMPARE(facade->value("proxy.host", "none"), QVariant("none"));

    facade->userSettings()->setValue(QStringLiteral("proxy.host"), QStringLiteral("p"));
    QCOMPARE(JsonSettings(layers.userPath, true).value("proxy.host"), QVariant("p"));
    QFile written(layers.userPath);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(QJsonDocument::fromJson(written.readAll()).object().keys(), QStringList{"proxy.host"});
    QCOMPARE(facade->value("quickboot.enabled"), QVariant(true));
}

void tst_MultiSettings::builtInDefaults()
{
    // The resource is compiled into the library and must stay a readable JSON object.
    JsonSettings defaults(builtInSettingsPath(), true);
    LogCapture log;
    QCOMPARE(defaults.value("stats.enabled"), QVariant(true));
    QCOMPARE(defaults.value("clipboard.sharing-enabled"), QVariant(true));
    QCOMPARE(defaults.value("quickboot.enabled"), QVariant(true));
    // Readers give their own default for the devices directory, which depends on QV_HOME.
    QVERIFY(!defaults.contains("virtual_devices.directory"));
    QVERIFY(!defaults.contains("version"));
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    defaults.setValue(QStringLiteral("stats.enabled"), false);
    QCOMPARE(defaults.value("stats.enabled"), QVariant(true));
}

QTEST_GUILESS_MAIN(tst_MultiSettings)
#include "tst_multisettings.moc"
