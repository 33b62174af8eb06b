#include "fakeqmpserver.h"
#include "logcapture.h"
#include "qemuclient.h"

#include <QTcpServer>
#include <QtTest>

namespace {

const QString Greet = QStringLiteral(R"(send {"QMP": {"version": {}, "capabilities": []}})");
const QString Caps = QStringLiteral(R"(expect {"execute":"qmp_capabilities"})");
const QString Quit = QStringLiteral(R"(expect {"execute":"quit"})"), Status = QStringLiteral(R"(expect {"execute":"query-status"})");
const QString Event = QStringLiteral(R"(send {"timestamp": {}, "event": "STOP"})"), Empty = QStringLiteral(R"(send {"return": {}})");
const QString Hmp = QStringLiteral(R"(expect {"arguments":{"command-line":"%1"},"execute":"human-monitor-command"})");

quint16 closedPort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress(QHostAddress::LocalHost), 0) ? probe.serverPort() : 0;
}

} // namespace

class tst_QEMUClient : public QObject
{
    Q_OBJECT
private slots:
    void conversation_data();
    void conversation();
};

void tst_QEMUClient::conversation_data()
{
    QTest::addColumn<QStringList>("script");  // empty: nothing listens on the port
    QTest::addColumn<QString>("calls");       // comma-separated
    QTest::addColumn<QString>("results");     // one digit per call
    QTest::addColumn<QStringList>("log");
    QTest::addColumn<QStringList>("failures"); // what the fake server reports

    const QStringList caps{"d enabling QMP capabilities", R"(d request {"execute":"qmp_capabilities"})"};
    const QStringList hs = caps + QStringList{R"(d response {"return": {}})"};
    const QStringList quit = hs + QStringList{"d sending quit command", R"(d request {"execute":"quit"})"};
    const QStringList status = hs + QStringList{R"(d request {"execute":"query-status"})"};
    const QString capsFailed = "c failed to enable QMP capabilities";
    const QString closed = "w unexpected error The remote host closed the connection", timedOut = "w unexpected error Network operation timed out";
    const QString silence = "d did not received response from QMP but it's expected.", noError = "d error returned from QMP null";
    const QString event = R"(d response {"timestamp": {}, "event": "STOP"})";
    const QStringList save = hs + QStringList{"d saving snapshot", R"(d request {"arguments":{"command-line":"savevm s1"},"execute":"human-monitor-command"})"};
    const QStringList unplug = hs + QStringList{"d unplugging shared folder", R"(d request {"arguments":{"command-line":"drive_del shared"},"execute":"human-monitor-command"})"};
    const QString savevm = Hmp.arg("savevm s1"), driveDel = Hmp.arg("drive_del shared");
    const QStringList none;

    QTest::newRow("handshake") << QStringList{"handshake"} << "init" << "1" << hs << none;
    QTest::newRow("second init sends nothing") << QStringList{"handshake"} << "init,init" << "11" << hs << none;
    QTest::newRow("empty greeting") << QStringList{"send"} << "init" << "0" << QStringList{"w bad message during initialization"} << none;
    QTest::newRow("no greeting") << QStringList{"pause 2100"} << "quit" << "0" << QStringList{"w timeout during initialization"} << none;
    QTest::newRow("refused") << none << "quit" << "0" << QStringList{"w unexpected error Connection refused", "c connection timeout"} << none;
    QTest::newRow("request before init") << none << "request" << "0" << QStringList{"c not connected"} << none;
    QTest::newRow("capabilities refused") << QStringList{Greet, Caps, R"(send {"error": {"class": "X", "desc": "no"}})"} << "init" << "0" << caps + QStringList{R"(d response {"error": {"class": "X", "desc": "no"}})", R"(d error returned from QMP {"class":"X","desc":"no"})", capsFailed} << none;
    QTest::newRow("reply not JSON") << QStringList{Greet, Caps, "send hello"} << "init" << "0" << caps + QStringList{"d response hello", "c failed to parse response as JSON illegal value", capsFailed} << none;
    QTest::newRow("reply empty object") << QStringList{Greet, Caps, "send {}"} << "init" << "0" << caps + QStringList{"d response {}", "c failed to parse response as JSON no error occurred", capsFailed} << none;
    QTest::newRow("capabilities answered with a value") << QStringList{Greet, Caps, R"(send {"return": 1})"} << "init" << "0" << caps + QStringList{R"(d response {"return": 1})", "c QEMU returned 1 while we expected {}", capsFailed} << none;
    QTest::newRow("events before the reply") << QStringList{Greet, Caps, Event, Event, Empty} << "init" << "1" << caps + QStringList{event, event, R"(d response {"return": {}})"} << none;
    QTest::newRow("lines in pieces") << QStringList{R"(raw {"QMP": {"vers)", "pause 100", "raw ion\": {}}}\n", Caps, R"(raw {"ret)", "pause 200", "raw urn\": {}}\n"} << "init" << "1" << hs << none;
    QTest::newRow("closed before the capabilities reply") << QStringList{Greet, Caps, "close"} << "init" << "0" << caps + QStringList{closed, noError, capsFailed} << none;

    QTest::newRow("quit") << QStringList{"handshake", Quit, Empty} << "quit" << "1" << quit + QStringList{R"(d response {"return": {}})"} << none;
    QTest::newRow("quit, closed") << QStringList{"handshake", Quit, "close"} << "quit" << "1" << quit + QStringList{closed, silence} << none;
    QTest::newRow("quit, silence") << QStringList{"handshake", Quit} << "quit" << "1" << quit + QStringList{timedOut, silence} << none;
    QTest::newRow("quit, event then silence") << QStringList{"handshake", Quit, Event} << "quit" << "1" << quit + QStringList{event, timedOut, silence} << none;
    QTest::newRow("quit, event and reply in one packet") << QStringList{"handshake", Quit, "raw {\"timestamp\": {}, \"event\": \"STOP\"}\n{\"return\": {\"x\": 1}}\n"} << "quit" << "0" << quit + QStringList{event, R"(d response {"return": {"x": 1}})", R"(c QEMU returned {"x":1} while we expected {})", "c failed to quit"} << none;
    QTest::newRow("quit, error") << QStringList{"handshake", Quit, R"(send {"error": {"desc": "busy"}})"} << "quit" << "0" << quit + QStringList{R"(d response {"error": {"desc": "busy"}})", R"(d error returned from QMP {"desc":"busy"})", "c failed to quit"} << none;

    QTest::newRow("save") << QStringList{"handshake", savevm, R"(send {"return": ""})"} << "save s1" << "1" << save + QStringList{R"(d response {"return": ""})"} << none;
    QTest::newRow("save, error text") << QStringList{"handshake", savevm, R"(send {"return": "Error: no\r\n"})"} << "save s1" << "0" << save + QStringList{R"(d response {"return": "Error: no\r\n"})", R"(c QEMU returned "Error: no\r\n" while we expected "")", "c failed to save snapshot"} << none;
    QTest::newRow("unplug, any answer, save") << QStringList{"handshake", driveDel, R"(send {"return": "gone"})", savevm, R"(send {"return": ""})"} << "unplug s1" << "1" << unplug + QStringList{R"(d response {"return": "gone"})"} + save.mid(3) + QStringList{R"(d response {"return": ""})"} << none;
    QTest::newRow("unplug refused") << QStringList{"handshake", driveDel, R"(send {"error": {}})"} << "unplug s1" << "0" << unplug + QStringList{R"(d response {"error": {}})", "d error returned from QMP {}", "c failed to unplug shared folder"} << none;

    QTest::newRow("request, any return, trimmed") << QStringList{"handshake", Status, "send \t {\"return\": 0} \r"} << "init,request" << "11" << status + QStringList{R"(d response {"return": 0})"} << none;
    QTest::newRow("request, silence") << QStringList{"handshake", Status} << "init,request" << "10" << status + QStringList{timedOut, noError} << none;
    QTest::newRow("request, event then silence") << QStringList{"handshake", Status, Event} << "init,request" << "10" << status + QStringList{event, timedOut, noError} << none;
    QTest::newRow("dropped connection is not reopened") << QStringList{"handshake", "close"} << "init,request,quit" << "100" << status + QStringList{closed, noError, "d sending quit command", "c not connected", "c failed to quit"} << none;

    // The fake is only worth something if it complains about a client that misbehaves.
    QTest::newRow("fake: wrong request") << QStringList{"handshake", Hmp.arg("savevm s2")} << "save s1" << "0" << save + QStringList{closed, noError, "c failed to save snapshot"} << QStringList{"step 4 (" + Hmp.arg("savevm s2") + "): the client sent " + savevm.mid(7)};
    QTest::newRow("fake: request after the end") << QStringList{"handshake"} << "quit" << "1" << quit + QStringList{timedOut, silence} << QStringList{"data after the end of the script: {\"execute\":\"quit\"}\n"};
    QTest::newRow("fake: no client") << QStringList{"handshake"} << "" << "" << none << QStringList{"no client connected"};
}

void tst_QEMUClient::conversation()
{
    QFETCH(QStringList, script);
    QFETCH(QString, calls);
    QFETCH(QString, results);
    QFETCH(QStringList, log);
    QFETCH(QStringList, failures);

    FakeQmpServer server(script);
    const quint16 port = script.isEmpty() ? closedPort() : server.listen();
    QVERIFY(port != 0);
    LogCapture capture;
    QString got;
    {
        QEMUClient client(port);
        for (const QString &call : calls.split(',', Qt::SkipEmptyParts)) {
            const QString name = call.section(' ', 1);
            const bool ok = call == "init" ? client.init() : call == "quit" ? client.quit() : !name.isEmpty() ? client.saveSnapshot(name, call.startsWith("unplug"))
                    : client.request({{"execute", "query-status"}}, QVariant(), 300, false);
            got += ok ? '1' : '0';
        }
    }
    QCOMPARE(script.isEmpty() ? QStringList() : server.finish(), failures);
    QCOMPARE(got, results);
    // Each line as "<level's first letter> <text>", without the tag and class prefix.
    const QRegularExpression prefix("^(.)\\w+: (\\[VMTools\\] QEMUClient: )?", QRegularExpression::MultilineOption);
    QCOMPARE(capture.dump().replace(prefix, "\\1 "), log.join('\n'));
}

QTEST_GUILESS_MAIN(tst_QEMUClient)
#include "tst_qemuclient.moc"
