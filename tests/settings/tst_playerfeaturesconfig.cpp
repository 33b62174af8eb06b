#include "playerfeaturesconfig.h"

#include <QtTest>

class tst_PlayerFeaturesConfig : public QObject
{
    Q_OBJECT
private slots:
    void combinesSettingsAndEnvironment_data();
    void combinesSettingsAndEnvironment();
};

void tst_PlayerFeaturesConfig::combinesSettingsAndEnvironment_data()
{
    QTest::addColumn<QStringList>("fromSettings");
    QTest::addColumn<QString>("fromEnvironment");
    QTest::addColumn<QStringList>("enabled");

    QTest::newRow("nothing") << QStringList() << QString() << QStringList();
    QTest::newRow("settings only") << QStringList{"b", " A "} << QString() << QStringList{"a", "b"};
    QTest::newRow("comma list") << QStringList() << "x,y" << QStringList{"x", "y"};
    QTest::newRow("mixed separators") << QStringList() << " x ;y\tz,,\n" << QStringList{"x", "y", "z"};
    QTest::newRow("case folded") << QStringList{"Snapshots"} << "SNAPSHOTS" << QStringList{"snapshots"};
    QTest::newRow("environment turns off") << QStringList{"a", "b"} << "-a" << QStringList{"b"};
    QTest::newRow("explicit plus") << QStringList() << "+a" << QStringList{"a"};
    QTest::newRow("off then on") << QStringList{"a"} << "-a,a" << QStringList{"a"};
    QTest::newRow("stray signs") << QStringList{""} << "-,+, -" << QStringList();
}

void tst_PlayerFeaturesConfig::combinesSettingsAndEnvironment()
{
    QFETCH(QStringList, fromSettings);
    QFETCH(QString, fromEnvironment);
    QFETCH(QStringList, enabled);
    const PlayerFeaturesConfig config(fromSettings, fromEnvironment);
    QCOMPARE(config.enabledFlags(), enabled);
    for (const QString &flag : enabled)
        QVERIFY(config.isEnabled(flag.toUpper()));
    QVERIFY(!config.isEnabled(QStringLiteral("not-listed")));
}

QTEST_GUILESS_MAIN(tst_PlayerFeaturesConfig)
#include "tst_playerfeaturesconfig.moc"
