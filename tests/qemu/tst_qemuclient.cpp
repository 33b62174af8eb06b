#include "casetable.h"
#include "fakeqmpserver.h"
#include "qemuclient.h"

#include <QScopeGuard>
#include <QTcpServer>

namespace {

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
    // A row: the fake peer's "script" (empty: nothing listens), comma-separated "calls", one
    // digit per call in "results", the "log" ("+" before a line: one or more of it, "?": maybe
    // one), what the fake reports ("failures"); "local" for a Unix socket, "scale" for the
    // client's waits, "within_ms" for how long all calls may take.
    void conversation_data() { addCaseRows("qemu/client.json"); }
    void conversation();
};

void tst_QEMUClient::conversation()
{
    QV_FETCH_CASE;
    const QStringList script = c["script"].toVariant().toStringList(), log = c["log"].toVariant().toStringList();
    QTemporaryDir dir;
    const QString path = c["local"].toBool() ? dir.filePath("qmp") : QString();
    FakeQmpServer server(script, path);
    const QmpEndpoint endpoint = !script.isEmpty() ? server.listen() : QmpEndpoint{path.isEmpty() ? closedPort() : quint16(0), path};
    QVERIFY(endpoint.port != 0 || endpoint.isLocalSocket());
    QEMUClient::setTimeScale(c["scale"].toDouble(1));
    const auto restore = qScopeGuard([] { QEMUClient::setTimeScale(1); });
    LogCapture capture;
    QElapsedTimer clock;
    clock.start();
    QString got;
    {
        QEMUClient client(endpoint);
        for (const QString &call : c["calls"].toString().split(',', Qt::SkipEmptyParts)) {
            const QString name = call.section(' ', 1);
            const bool ok = call == "init" ? client.init() : call == "quit" ? client.quit() : !name.isEmpty() ? client.saveSnapshot(name, call.startsWith("unplug"))
                    : client.request({{"execute", "query-status"}}, QVariant(), 300, false);
            got += ok ? '1' : '0';
        }
    }
    const qint64 took = clock.elapsed();
    QCOMPARE(server.finish(), c["failures"].toVariant().toStringList());
    QCOMPARE(got, c["results"].toString());
    QVERIFY2(took <= c["within_ms"].toInt(2000), qPrintable(QString::number(took)));
    // Each line as "<level's first letter> <text>", without the tag and class prefix.
    QString pattern, dump;
    for (const QString &line : log)
        pattern += QString("(?:%1\\n)%2").arg(QRegularExpression::escape(line.mid(line.at(0) == '+' || line.at(0) == '?')), line.left(line.at(0) == '+' || line.at(0) == '?'));
    for (const QString &line : capture.all())
        dump += QString(line).replace(QRegularExpression("^(.)\\w+: (\\[VMTools\\] QEMUClient: )?"), "\\1 ") + '\n';
    QVERIFY2(QRegularExpression("\\A" + pattern + "\\z").match(dump).hasMatch(), qPrintable(dump + "-- expected --\n" + log.join('\n')));
}

QTEST_GUILESS_MAIN(tst_QEMUClient)
#include "tst_qemuclient.moc"
