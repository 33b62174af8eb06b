#include "fakeqmpserver.h"
#include "logcapture.h"
#include "qemuclient.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QtTest>

#include <memory>

namespace {

const QString Caps = QStringLiteral(R"(expect {"execute":"qmp_capabilities"})");
const QString Quit = QStringLiteral(R"(expect {"execute":"quit"})");
const QString Status = QStringLiteral(R"(expect {"execute":"query-status"})");
const QString Event = QStringLiteral(
    R"(send {"timestamp": {"seconds": 1700000000, "microseconds": 1}, "event": "RESUME"})");
const QString Greeting = QStringLiteral("send ") + QString::fromUtf8(FakeQmpServer::greetingLine());
const QString ReturnEmpty = QStringLiteral(R"(send {"return": {}})");
const QString ReturnText = QStringLiteral(R"(send {"return": ""})");
const QString DriveDel = QStringLiteral(
    R"(expect {"arguments":{"command-line":"drive_del shared"},"execute":"human-monitor-command"})");
const QString SaveSnap1 = QStringLiteral(
    R"(expect {"arguments":{"command-line":"savevm snap1"},"execute":"human-monitor-command"})");

// "init", "quit", "save NAME", "unplug-save NAME", "request" or "silent-request" (both
// after init, with a short per-wait time-out).
bool perform(QEMUClient &client, const QString &call)
{
    const QString name = call.section(QLatin1Char(' '), 1);
    if (call == QLatin1String("init"))
        return client.init();
    if (call == QLatin1String("quit"))
        return client.quit();
    if (call.startsWith(QLatin1String("save ")))
        return client.saveSnapshot(name, false);
    if (call.startsWith(QLatin1String("unplug-save ")))
        return client.saveSnapshot(name, true);
    const QVariantMap status{{QStringLiteral("execute"), QStringLiteral("query-status")}};
    if (call == QLatin1String("request"))
        return client.init() && client.request(status, QVariant(), 300, false);
    if (call == QLatin1String("silent-request"))
        return client.init() && client.request(status, QVariant(), 300, true);
    qWarning("unknown call %s", qPrintable(call));
    return false;
}

// The tagged lines of one level, for an exact comparison with what a case expects.
QStringList tagged(const LogCapture &log, QtMsgType type)
{
    QStringList result = log.lines(type).filter(QRegularExpression(QStringLiteral("^\\[VMTools\\] ")));
    result.sort();
    return result;
}

quint16 closedPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

} // namespace

class tst_QEMUClient : public QObject
{
    Q_OBJECT
private slots:
    void conversation_data();
    void conversation();
    void refusedConnection();
    void secondInitSendsNothing();
    void requestWithoutConnection();
    void droppedConnection();
    void fakeServerCatchesFaults_data();
    void fakeServerCatchesFaults();
};

void tst_QEMUClient::conversation_data()
{
    QTest::addColumn<QStringList>("script");
    QTest::addColumn<QString>("call");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("debug");     // must appear, among others
    QTest::addColumn<QStringList>("warning");   // exactly these
    QTest::addColumn<QStringList>("critical");  // exactly these

    const QString remoteClosed =
        QStringLiteral("[VMTools] QEMUClient: unexpected error The remote host closed the connection");
    const QString timedOut =
        QStringLiteral("[VMTools] QEMUClient: unexpected error Network operation timed out");
    const QString silence =
        QStringLiteral("[VMTools] QEMUClient: did not received response from QMP but it's expected.");
    const QString capsFailed = QStringLiteral("[VMTools] QEMUClient: failed to enable QMP capabilities");
    const QString quitFailed = QStringLiteral("[VMTools] QEMUClient: failed to quit");
    const QString saveFailed = QStringLiteral("[VMTools] QEMUClient: failed to save snapshot");
    const QString notJson = QStringLiteral("[VMTools] QEMUClient: failed to parse response as JSON ");
    const QString noError = QStringLiteral("[VMTools] QEMUClient: error returned from QMP null");

    QTest::newRow("handshake")
        << QStringList{Greeting, Caps, ReturnEmpty} << "init" << true
        << QStringList{QStringLiteral("[VMTools] QEMUClient: enabling QMP capabilities"),
                       QStringLiteral(R"([VMTools] QEMUClient: request {"execute":"qmp_capabilities"})"),
                       QStringLiteral(R"([VMTools] QEMUClient: response {"return": {}})")}
        << QStringList() << QStringList();
    QTest::newRow("greeting is an empty line")
        << QStringList{QStringLiteral("send")} << "init" << false << QStringList()
        << QStringList{QStringLiteral("[VMTools] QEMUClient: bad message during initialization")}
        << QStringList();
    QTest::newRow("greeting is blank")
        << QStringList{QStringLiteral("send  \t \r")} << "quit" << false << QStringList()
        << QStringList{QStringLiteral("[VMTools] QEMUClient: bad message during initialization")}
        << QStringList();
    QTest::newRow("no greeting within 2 s")
        << QStringList() << "init" << false << QStringList()
        << QStringList{QStringLiteral("[VMTools] QEMUClient: timeout during initialization")}
        << QStringList();
    QTest::newRow("capabilities refused")
        << QStringList{Greeting, Caps,
                       QStringLiteral(R"(send {"error": {"class": "CommandNotFound", "desc": "nope"}})")}
        << "init" << false
        << QStringList{QStringLiteral(
               R"([VMTools] QEMUClient: error returned from QMP {"class":"CommandNotFound","desc":"nope"})")}
        << QStringList() << QStringList{capsFailed};
    QTest::newRow("reply is not JSON")
        << QStringList{Greeting, Caps, QStringLiteral("send hello")} << "init" << false
        << QStringList{QStringLiteral("[VMTools] QEMUClient: response hello")} << QStringList()
        << QStringList{notJson + QStringLiteral("illegal value"), capsFailed};
    QTest::newRow("reply is an empty object")
        << QStringList{Greeting, Caps, QStringLiteral("send {}")} << "init" << false << QStringList()
        << QStringList() << QStringList{notJson + QStringLiteral("no error occurred"), capsFailed};
    QTest::newRow("reply is an array")
        << QStringList{Greeting, Caps, QStringLiteral(R"(send [{"return": {}}])")} << "init" << false
        << QStringList() << QStringList()
        << QStringList{notJson + QStringLiteral("no error occurred"), capsFailed};
    QTest::newRow("reply is a blank line")
        << QStringList{Greeting, Caps, QStringLiteral("send   ")} << "init" << false << QStringList()
        << QStringList() << QStringList{notJson + QStringLiteral("illegal value"), capsFailed};
    QTest::newRow("capabilities answered with a value")
        << QStringList{Greeting, Caps, QStringLiteral(R"(send {"return": 1})")} << "init" << false
        << QStringList() << QStringList()
        << QStringList{QStringLiteral("[VMTools] QEMUClient: QEMU returned 1 while we expected {}"),
                       capsFailed};
    QTest::newRow("events before the reply")
        << QStringList{Greeting, Caps, Event, Event, ReturnEmpty} << "init" << true << QStringList()
        << QStringList() << QStringList();
    QTest::newRow("lines arrive in pieces")
        << QStringList{QStringLiteral(R"(raw {"QMP": {"version")"), QStringLiteral("pause 100"),
                       QStringLiteral("raw : {}}}\n"), Caps, QStringLiteral(R"(raw {"ret)"),
                       QStringLiteral("pause 200"), QStringLiteral("raw urn\": {}}\n")}
        << "init" << true << QStringList() << QStringList() << QStringList();
    QTest::newRow("connection closed before the capabilities reply")
        << QStringList{Greeting, Caps, QStringLiteral("close")} << "init" << false
        << QStringList{noError} << QStringList{remoteClosed} << QStringList{capsFailed};

    QTest::newRow("quit answered")
        << QStringList{QStringLiteral("handshake"), Quit, ReturnEmpty} << "quit" << true
        << QStringList{QStringLiteral("[VMTools] QEMUClient: sending quit command")} << QStringList()
        << QStringList();
    QTest::newRow("quit: connection closed without a reply")
        << QStringList{QStringLiteral("handshake"), Quit, QStringLiteral("close")} << "quit" << true
        << QStringList{silence} << QStringList{remoteClosed} << QStringList();
    QTest::newRow("quit: silence")
        << QStringList{QStringLiteral("handshake"), Quit} << "quit" << true << QStringList{silence}
        << QStringList{timedOut} << QStringList();
    QTest::newRow("quit: event then silence")
        << QStringList{QStringLiteral("handshake"), Quit, Event} << "quit" << true
        << QStringList{silence} << QStringList{timedOut} << QStringList();
    // Both lines come in one packet: the buffered reply must be read, not taken for silence.
    QTest::newRow("quit: event and reply in one packet")
        << QStringList{QStringLiteral("handshake"), Quit,
                       QStringLiteral("raw {\"timestamp\": {}, \"event\": \"STOP\"}\n"
                                      "{\"return\": {\"x\": 1}}\n")}
        << "quit" << false << QStringList() << QStringList()
        << QStringList{QStringLiteral(R"([VMTools] QEMUClient: QEMU returned {"x":1} while we expected {})"),
                       quitFailed};
    QTest::newRow("quit: error reply")
        << QStringList{QStringLiteral("handshake"), Quit,
                       QStringLiteral(R"(send {"error": {"class": "GenericError", "desc": "busy"}})")}
        << "quit" << false
        << QStringList{QStringLiteral(
               R"([VMTools] QEMUClient: error returned from QMP {"class":"GenericError","desc":"busy"})")}
        << QStringList() << QStringList{quitFailed};

    QTest::newRow("save")
        << QStringList{QStringLiteral("handshake"), SaveSnap1, ReturnText} << "save snap1" << true
        << QStringList{QStringLiteral("[VMTools] QEMUClient: saving snapshot"),
                       QStringLiteral(R"([VMTools] QEMUClient: request {"arguments":{"command-line":"savevm snap1"},"execute":"human-monitor-command"})")}
        << QStringList() << QStringList();
    QTest::newRow("save: name is escaped")
        << QStringList{QStringLiteral("handshake"),
                       QStringLiteral(R"(expect {"arguments":{"command-line":"savevm a \"b\" \\ c"},"execute":"human-monitor-command"})"),
                       ReturnText}
        << R"(save a "b" \ c)" << true << QStringList() << QStringList() << QStringList();
    QTest::newRow("save after unplugging")
        << QStringList{QStringLiteral("handshake"), DriveDel, ReturnText, SaveSnap1, ReturnText}
        << "unplug-save snap1" << true
        << QStringList{QStringLiteral("[VMTools] QEMUClient: unplugging shared folder")}
        << QStringList() << QStringList();
    QTest::newRow("save: any unplug answer is accepted")
        << QStringList{QStringLiteral("handshake"), DriveDel,
                       QStringLiteral(R"(send {"return": "Device 'shared' not found\r\n"})"),
                       SaveSnap1, ReturnText}
        << "unplug-save snap1" << true << QStringList() << QStringList() << QStringList();
    QTest::newRow("save: unplug refused")
        << QStringList{QStringLiteral("handshake"), DriveDel,
                       QStringLiteral(R"(send {"error": {"class": "GenericError", "desc": "no"}})")}
        << "unplug-save snap1" << false << QStringList() << QStringList()
        << QStringList{QStringLiteral("[VMTools] QEMUClient: failed to unplug shared folder")};
    QTest::newRow("save: savevm answers with error text")
        << QStringList{QStringLiteral("handshake"), SaveSnap1,
                       QStringLiteral(R"(send {"return": "Error: Device 'shared' is writable but does not support snapshots\r\n"})")}
        << "save snap1" << false << QStringList() << QStringList()
        << QStringList{QStringLiteral(R"([VMTools] QEMUClient: QEMU returned "Error: Device 'shared' is writable but does not support snapshots\r\n" while we expected "")"),
                       saveFailed};

    QTest::newRow("request: any return accepted")
        << QStringList{QStringLiteral("handshake"), Status,
                       QStringLiteral(R"(send {"return": {"status": "running"}})")}
        << "request" << true << QStringList() << QStringList() << QStringList();
    QTest::newRow("request: reply trimmed")
        << QStringList{QStringLiteral("handshake"), Status, QStringLiteral("send \t {\"return\": 0} \r")}
        << "request" << true
        << QStringList{QStringLiteral(R"([VMTools] QEMUClient: response {"return": 0})")}
        << QStringList() << QStringList();
    QTest::newRow("request: silence fails")
        << QStringList{QStringLiteral("handshake"), Status} << "request" << false
        << QStringList{noError} << QStringList{timedOut} << QStringList();
    QTest::newRow("request: event then silence fails")
        << QStringList{QStringLiteral("handshake"), Status, Event} << "request" << false
        << QStringList{noError} << QStringList{timedOut} << QStringList();
    QTest::newRow("request: event then silence succeeds when silence is fine")
        << QStringList{QStringLiteral("handshake"), Status, Event} << "silent-request" << true
        << QStringList{silence} << QStringList{timedOut} << QStringList();
}

void tst_QEMUClient::conversation()
{
    QFETCH(QStringList, script);
    QFETCH(QString, call);
    QFETCH(bool, result);
    QFETCH(QStringList, debug);
    QFETCH(QStringList, warning);
    QFETCH(QStringList, critical);

    FakeQmpServer server;
    server.addScript(script);
    const quint16 port = server.start();
    QVERIFY(port != 0);

    LogCapture log;
    bool ok;
    {
        QEMUClient client(port);
        ok = perform(client, call);
    }
    const QStringList failures = server.finish();
    QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
    QCOMPARE(server.connectionCount(), 1);
    QCOMPARE(ok, result);

    for (const QString &line : qAsConst(debug))
        QVERIFY2(log.contains(QtDebugMsg, line), qPrintable(line + QLatin1Char('\n') + log.dump()));
    warning.sort();
    critical.sort();
    QCOMPARE(tagged(log, QtWarningMsg), warning);
    QCOMPARE(tagged(log, QtCriticalMsg), critical);
}

void tst_QEMUClient::refusedConnection()
{
    const quint16 port = closedPort();
    QVERIFY(port != 0);
    LogCapture log;
    QEMUClient client(port);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!client.quit());
    QVERIFY(timer.elapsed() < 2500);
    QCOMPARE(tagged(log, QtCriticalMsg), QStringList{"[VMTools] QEMUClient: connection timeout"});
    QCOMPARE(tagged(log, QtWarningMsg),
             QStringList{"[VMTools] QEMUClient: unexpected error Connection refused"});
}

void tst_QEMUClient::secondInitSendsNothing()
{
    FakeQmpServer server;
    server.handshake();
    const quint16 port = server.start();
    QVERIFY(port != 0);
    {
        QEMUClient client(port);
        QVERIFY(client.init());
        LogCapture log;
        QElapsedTimer timer;
        timer.start();
        QVERIFY(client.init());
        QVERIFY(timer.elapsed() < 500);
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    }
    // Anything the second call sent would show up as data after the end of the script.
    const QStringList failures = server.finish();
    QVERIFY2(failures.isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
}

void tst_QEMUClient::requestWithoutConnection()
{
    LogCapture log;
    QEMUClient client(closedPort());
    QVERIFY(!client.request({{QStringLiteral("execute"), QStringLiteral("quit")}}, QVariant(), 100, true));
    QCOMPARE(tagged(log, QtCriticalMsg), QStringList{"[VMTools] QEMUClient: not connected"});
    QCOMPARE(tagged(log, QtDebugMsg), QStringList());
}

// Once QEMU has dropped the connection the client does not reconnect.
void tst_QEMUClient::droppedConnection()
{
    FakeQmpServer server;
    server.handshake().closeConnection();
    const quint16 port = server.start();
    QVERIFY(port != 0);
    QEMUClient client(port);
    QVERIFY(client.init());

    const QVariantMap status{{QStringLiteral("execute"), QStringLiteral("query-status")}};
    QVERIFY(!client.request(status, QVariant(), 1000, false));
    LogCapture log;
    QVERIFY(!client.request(status, QVariant(), 1000, true));
    QCOMPARE(tagged(log, QtCriticalMsg), QStringList{"[VMTools] QEMUClient: not connected"});
    QVERIFY(!client.quit());  // still initialised, so no new handshake is tried
    QCOMPARE(log.count(QStringLiteral("[VMTools] QEMUClient: failed to quit")), 1);
    QCOMPARE(server.connectionCount(), 1);
}

// The fake is only worth something if it complains; each row is a client fault.
void tst_QEMUClient::fakeServerCatchesFaults_data()
{
    QTest::addColumn<QStringList>("script");
    QTest::addColumn<QString>("call");
    QTest::addColumn<QString>("failure");

    QTest::newRow("different request")
        << QStringList{QStringLiteral("handshake"),
                       QStringLiteral(R"(expect {"arguments":{"command-line":"savevm snap2"},"execute":"human-monitor-command"})")}
        << "save snap1" << "step 4: expected";
    QTest::newRow("request after the end of the script")
        << QStringList{QStringLiteral("handshake")} << "quit"
        << R"(data after the end of the script: {"execute":"quit"})";
    QTest::newRow("client leaves early")
        << QStringList{Greeting, QStringLiteral("pause 3000"), Caps} << "init"
        << "client closed the connection before step 3";
    QTest::newRow("no connection")
        << QStringList{QStringLiteral("handshake")} << "" << "no client connected";
    QTest::newRow("bad script entry")
        << QStringList{QStringLiteral("shout"), QStringLiteral("handshake")} << "init"
        << "bad script entry: shout";
}

void tst_QEMUClient::fakeServerCatchesFaults()
{
    QFETCH(QStringList, script);
    QFETCH(QString, call);
    QFETCH(QString, failure);

    FakeQmpServer server;
    server.addScript(script);
    const quint16 port = server.start();
    QVERIFY(port != 0);
    if (!call.isEmpty()) {
        QEMUClient client(port);
        perform(client, call);
    }
    const QStringList failures = server.finish(1000);
    QVERIFY2(!failures.filter(failure).isEmpty(), qPrintable(failures.join(QLatin1Char('\n'))));
}

QTEST_GUILESS_MAIN(tst_QEMUClient)
#include "tst_qemuclient.moc"
