#include "logcapture.h"
#include "productlinks.h"

#include <QtTest>

class tst_ProductLinks : public QObject
{
    Q_OBJECT
private slots:
    void cleanup();
    void baseUrlFromEnvironment_data();
    void baseUrlFromEnvironment();
};

void tst_ProductLinks::cleanup()
{
    qunsetenv("QV_WEBSITE_URL");
}

void tst_ProductLinks::baseUrlFromEnvironment_data()
{
    QTest::addColumn<QByteArray>("override");  // null: unset
    QTest::addColumn<QString>("webSite");
    QTest::addColumn<QString>("html");
    QTest::addColumn<bool>("warned");

    QTest::newRow("default") << QByteArray() << "https://www.quorvel.com"
                             << "<a href='https://www.quorvel.com/download'>www.quorvel.com/download</a>" << false;
    QTest::newRow("staging") << QByteArray("http://staging.example:8080") << "http://staging.example:8080"
                             << "<a href='http://staging.example:8080/download'>staging.example:8080/download</a>" << false;
    QTest::newRow("trailing slash and path") << QByteArray("https://example.org/qv/") << "https://example.org/qv"
                                             << "<a href='https://example.org/qv/download'>example.org/qv/download</a>"
                                             << false;
    QTest::newRow("not http") << QByteArray("ftp://example.org") << "https://www.quorvel.com"
                              << "<a href='https://www.quorvel.com/download'>www.quorvel.com/download</a>" << true;
    QTest::newRow("no scheme") << QByteArray("www.example.org") << "https://www.quorvel.com"
                               << "<a href='https://www.quorvel.com/download'>www.quorvel.com/download</a>" << true;
    QTest::newRow("empty means unset") << QByteArray("") << "https://www.quorvel.com"
                                       << "<a href='https://www.quorvel.com/download'>www.quorvel.com/download</a>" << false;
}

void tst_ProductLinks::baseUrlFromEnvironment()
{
    QFETCH(QByteArray, override);
    QFETCH(QString, webSite);
    QFETCH(QString, html);
    QFETCH(bool, warned);
    if (!override.isNull())
        qputenv("QV_WEBSITE_URL", override);

    LogCapture log;
    QCOMPARE(ProductLinks::webSite().toString(), webSite);
    QCOMPARE(ProductLinks::downloadPage().toString(), webSite + "/download");
    QCOMPARE(ProductLinks::downloadLinkHtml(), html);
    QCOMPARE(log.containsPrefix(QtWarningMsg, "Ignoring QV_WEBSITE_URL"), warned);
}

QTEST_GUILESS_MAIN(tst_ProductLinks)
#include "tst_productlinks.moc"
