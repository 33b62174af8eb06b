#include "logcapture.h"
#include "logging.h"

#include <QtTest>

class tst_Logging : public QObject
{
    Q_OBJECT
private slots:
    void joinsPartsUnquoted();
    void levels_data();
    void levels();
    void debugTextQuotesLikeQDebug();
    void categoryCanSilenceDebug();
};

void tst_Logging::joinsPartsUnquoted()
{
    LogCapture log;
    vmCritical("Failed to open process with Pid =", 42u);
    Log::warning("Skipping file '", QStringLiteral("a b"), "' of unsupported type", QChar('2'));
    vmDebug("QEMU acceleration support", true, qint64(-1), QByteArray("raw"));

    const auto e = log.entries();
    QCOMPARE(e.size(), 3);
    QCOMPARE(e[0].text, QStringLiteral("[VMTools] Failed to open process with Pid = 42"));
    QCOMPARE(e[0].type, QtCriticalMsg);
    QCOMPARE(e[1].text, QStringLiteral("Skipping file ' a b ' of unsupported type 2"));
    QCOMPARE(e[2].text, QStringLiteral("[VMTools] QEMU acceleration support true -1 raw"));
}

void tst_Logging::levels_data()
{
    QTest::addColumn<int>("which");
    QTest::addColumn<int>("expected");
    QTest::newRow("debug") << 0 << int(QtDebugMsg);
    QTest::newRow("info") << 1 << int(QtInfoMsg);
    QTest::newRow("warning") << 2 << int(QtWarningMsg);
    QTest::newRow("critical") << 3 << int(QtCriticalMsg);
}

void tst_Logging::levels()
{
    QFETCH(int, which);
    QFETCH(int, expected);
    LogCapture log;
    switch (which) {
    case 0: vmDebug("x"); break;
    case 1: vmInfo("x"); break;
    case 2: vmWarning("x"); break;
    default: vmCritical("x"); break;
    }
    QCOMPARE(log.entries().size(), 1);
    QCOMPARE(int(log.entries().first().type), expected);
    QVERIFY(log.contains(QtMsgType(expected), QStringLiteral("[VMTools] x")));
}

void tst_Logging::debugTextQuotesLikeQDebug()
{
    QCOMPARE(Log::debugText(QStringList{QStringLiteral("--version"), QStringLiteral("a b")}),
             QStringLiteral("(\"--version\", \"a b\")"));
    QCOMPARE(Log::debugText(QStringLiteral("qemu")), QStringLiteral("\"qemu\""));
}

void tst_Logging::categoryCanSilenceDebug()
{
    LogCapture log;
    QLoggingCategory::setFilterRules(QStringLiteral("quorvel.vmtools.debug=false"));
    vmDebug("hidden");
    vmWarning("shown");
    QLoggingCategory::setFilterRules(QString());
    QCOMPARE(log.entries().size(), 1);
    QCOMPARE(log.entries().first().text, QStringLiteral("[VMTools] shown"));
}

QTEST_GUILESS_MAIN(tst_Logging)
#include "tst_logging.moc"
