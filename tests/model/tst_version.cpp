#include "logcapture.h"
#include "version.h"

#include <QtTest>

class tst_Version : public QObject
{
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
    void ordering_data();
    void ordering();
    void unknownStatusIsCritical();
    void debugStreamWritesFullForm();
};

void tst_Version::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QList<int>>("fields");  // major, minor, patch, status, number
    QTest::addColumn<QString>("full");
    QTest::addColumn<QString>("shortForm");

    const int A = Version::Alpha, B = Version::Beta, R = Version::Rc;
    QTest::newRow("empty") << "" << QList<int>{0, 0, 0, 0, 0} << "0.0.0" << "0.0";
    QTest::newRow("major only") << "11" << QList<int>{11, 0, 0, 0, 0} << "11.0.0" << "11.0";
    QTest::newRow("release") << "1.2.3" << QList<int>{1, 2, 3, 0, 0} << "1.2.3" << "1.2";
    QTest::newRow("fourth number") << "1.2.3.7" << QList<int>{1, 2, 3, 0, 7} << "1.2.3.7" << "1.2";
    QTest::newRow("fifth number ignored") << "1.2.3.7.9" << QList<int>{1, 2, 3, 0, 7} << "1.2.3.7"
                                          << "1.2";
    QTest::newRow("alpha") << "1.0.0-alpha3" << QList<int>{1, 0, 0, A, 3} << "1.0.0-alpha3" << "1.0";
    QTest::newRow("alpha without number") << "1.0.0-alpha" << QList<int>{1, 0, 0, A, 0}
                                          << "1.0.0-alpha0" << "1.0";
    QTest::newRow("beta without number") << "1.2.3-beta" << QList<int>{1, 2, 3, B, 0}
                                         << "1.2.3-beta0" << "1.2";
    QTest::newRow("beta") << "1.2.3-beta4" << QList<int>{1, 2, 3, B, 4} << "1.2.3-beta4" << "1.2";
    QTest::newRow("beta with junk number") << "1.2.3-beta2x" << QList<int>{1, 2, 3, B, 0}
                                           << "1.2.3-beta0" << "1.2";
    QTest::newRow("rc") << "2.0.0-rc3" << QList<int>{2, 0, 0, R, 3} << "2.0.0-rc3" << "2.0";
    // "-alpha" is tried first; what follows it is not a plain number, so the number is 0.
    QTest::newRow("alpha before rc") << "1.0.0-alpha1-rc2" << QList<int>{1, 0, 0, A, 0}
                                     << "1.0.0-alpha0" << "1.0";
    QTest::newRow("suffix wins over fourth number") << "1.2.3.9-rc1" << QList<int>{1, 2, 3, R, 1}
                                                    << "1.2.3-rc1" << "1.2";
    QTest::newRow("markers are case-sensitive") << "1.2.3-RC1" << QList<int>{1, 2, 0, 0, 0}
                                                << "1.2.0" << "1.2";
    QTest::newRow("letters") << "a.b.c" << QList<int>{0, 0, 0, 0, 0} << "0.0.0" << "0.0";
    QTest::newRow("empty pieces") << "1..3" << QList<int>{1, 0, 3, 0, 0} << "1.0.3" << "1.0";
    QTest::newRow("negative") << "-1.2" << QList<int>{-1, 2, 0, 0, 0} << "-1.2.0" << "-1.2";
    QTest::newRow("overflow") << "99999999999.1" << QList<int>{0, 1, 0, 0, 0} << "0.1.0" << "0.1";
    QTest::newRow("unknown suffix") << "1.0.0-unknown" << QList<int>{1, 0, 0, 0, 0} << "1.0.0"
                                    << "1.0";
}

void tst_Version::parse()
{
    QFETCH(QString, text);
    QFETCH(QList<int>, fields);
    QFETCH(QString, full);
    QFETCH(QString, shortForm);

    const Version v = parseVersion(text);
    QCOMPARE((QList<int>{v.majorVersion, v.minorVersion, v.patchVersion, v.patchStatus,
                         v.statusNumber}),
             fields);
    QCOMPARE(v.toString(), full);
    QCOMPARE(v.toShortString(), shortForm);
    // The full form always parses back to the same value.
    QCOMPARE(parseVersion(v.toString()), v);
}

void tst_Version::ordering_data()
{
    QTest::addColumn<QString>("lower");
    QTest::addColumn<QString>("higher");
    QTest::newRow("alpha < beta") << "1.1.0-alpha2" << "1.1.0-beta1";
    QTest::newRow("beta < rc") << "1.1.0-beta1" << "1.1.0-rc1";
    QTest::newRow("rc < release") << "1.1.0-rc1" << "1.1.0";
    QTest::newRow("release < fourth number") << "1.1.0" << "1.1.0.1";
    QTest::newRow("rc below its release") << "2.0.0-rc3" << "2.0.0";
    QTest::newRow("rc above older release") << "1.99.99" << "2.0.0-rc3";
    QTest::newRow("major beats minor") << "1.99.0" << "2.0.0-alpha0";
    QTest::newRow("status number") << "1.0.0-beta2" << "1.0.0-beta10";
}

void tst_Version::ordering()
{
    QFETCH(QString, lower);
    QFETCH(QString, higher);
    const Version a = parseVersion(lower), b = parseVersion(higher);
    QVERIFY(a < b);
    QVERIFY(a <= b);
    QVERIFY(b > a);
    QVERIFY(b >= a);
    QVERIFY(a != b);
    QVERIFY(!(a == b));
    QVERIFY(!(b < a));
    QVERIFY(!(a >= b));
}

void tst_Version::unknownStatusIsCritical()
{
    QCOMPARE(parseVersion("1.0.0-alpha"), parseVersion("1.0.0-alpha0"));

    Version v{3, 1, 4, Version::Unknown, 5};
    LogCapture log;
    QCOMPARE(v.toString(), QStringLiteral("3.1.4-unknown"));
    QVERIFY2(log.contains(QtCriticalMsg, "Unknown patch status."), qPrintable(log.dump()));

    // A status outside the table gets no suffix and no complaint.
    log.clear();
    v.patchStatus = 7;
    QCOMPARE(v.toString(), QStringLiteral("3.1.4"));
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_Version::debugStreamWritesFullForm()
{
    QString text;
    QDebug(&text) << parseVersion("1.2.3-beta") << parseVersion("4.5");
    QCOMPARE(text, QStringLiteral("1.2.3-beta0 4.5.0 "));
}

QTEST_APPLESS_MAIN(tst_Version)
#include "tst_version.moc"
