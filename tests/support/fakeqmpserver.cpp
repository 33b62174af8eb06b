#include "fakeqmpserver.h"

#include <QDeadlineTimer>
#include <QTcpServer>
#include <QTcpSocket>

void FakeQmpServer::run()
{
    QTcpServer server;
    m_port = server.listen(QHostAddress::LocalHost, 0) ? server.serverPort() : 0;
    m_ready.release();
    // Short slices, so that finish() ends a wait for a client that never comes.
    while (m_port && !server.hasPendingConnections() && !m_stop.loadAcquire())
        server.waitForNewConnection(20);
    QTcpSocket *peer = server.nextPendingConnection();  // owned by the server
    if (!peer)
        return fail("no client connected");

    QStringList steps;
    for (const QString &step : qAsConst(m_script))
        steps += step != "handshake" ? QStringList{step} : QStringList{"send {\"QMP\": {\"version\": {}, \"capabilities\": []}}",
                 "expect {\"execute\":\"qmp_capabilities\"}", "send {\"return\": {}}"};
    for (int i = 0; i < steps.size(); ++i) {
        const QString verb = steps.at(i).section(' ', 0, 0), where = QString("step %1 (%2): ").arg(i + 1).arg(steps.at(i));
        const QByteArray text = steps.at(i).section(' ', 1).toUtf8();
        if (verb == "send" || verb == "raw") {
            peer->write(verb == "send" ? text + '\n' : text);
            peer->waitForBytesWritten(1000);
        } else if (verb == "pause") {
            msleep(text.toULong());
        } else if (verb == "close") {
            peer->disconnectFromHost();
        } else if (verb == "expect") {
            const QDeadlineTimer deadline(5000);
            while (!peer->canReadLine() && peer->state() == QTcpSocket::ConnectedState && !deadline.hasExpired())
                peer->waitForReadyRead(20);
            if (!peer->canReadLine())
                return fail(where + "the client left or sent nothing");
            const QByteArray line = peer->readLine().chopped(1);
            if (line != text)
                return fail(where + "the client sent " + line);
        } else {
            return fail(where + "bad script entry");
        }
    }
    // The connection stays open until the test is done with its client.
    while (!m_stop.loadAcquire() && peer->state() == QTcpSocket::ConnectedState)
        peer->waitForReadyRead(20);
    if (peer->bytesAvailable())
        fail("data after the end of the script: " + peer->readAll());
    if (server.hasPendingConnections() || server.waitForNewConnection(0))
        fail("a second connection");
}
