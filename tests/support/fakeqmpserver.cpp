#include "fakeqmpserver.h"

#include <QDeadlineTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTcpServer>
#include <QTcpSocket>

void FakeQmpServer::run()
{
    QTcpServer tcp;
    QLocalServer local;
    const bool isLocal = m_endpoint.isLocalSocket();
    const bool listening = isLocal ? local.listen(m_endpoint.socketPath) : tcp.listen(QHostAddress::LocalHost, 0);
    m_endpoint = listening ? QmpEndpoint{isLocal ? quint16(0) : tcp.serverPort(), m_endpoint.socketPath} : QmpEndpoint();
    m_ready.release();
    const auto waitForClient = [&](int ms) {
        return isLocal ? local.hasPendingConnections() || local.waitForNewConnection(ms)
                       : tcp.hasPendingConnections() || tcp.waitForNewConnection(ms);
    };
    // Short slices, so that finish() ends a wait for a client that never comes.
    while (listening && !waitForClient(20) && !m_stop.loadAcquire()) {}
    QIODevice *peer = isLocal ? static_cast<QIODevice *>(local.nextPendingConnection()) : tcp.nextPendingConnection();  // owned by the server
    if (!peer)
        return fail("no client connected");
    const auto connected = [&] {
        return isLocal ? static_cast<QLocalSocket *>(peer)->state() == QLocalSocket::ConnectedState
                       : static_cast<QTcpSocket *>(peer)->state() == QTcpSocket::ConnectedState;
    };

    QStringList steps;
    for (const QString &step : qAsConst(m_script)) {
        if (step == "handshake")
            steps += {"send {\"QMP\": {\"version\": {}, \"capabilities\": []}}", "expect {\"execute\":\"qmp_capabilities\"}", "send {\"return\": {}}"};
        for (int n = step.startsWith("repeat ") ? step.section(' ', 1, 1).toInt() : 0; n > 0; --n)
            steps += {"pause " + step.section(' ', 2, 2), step.section(' ', 3)};
        if (step != "handshake" && !step.startsWith("repeat "))
            steps += step;
    }
    for (int i = 0; i < steps.size(); ++i) {
        const QString verb = steps.at(i).section(' ', 0, 0), where = QString("step %1 (%2): ").arg(i + 1).arg(steps.at(i));
        const QByteArray text = steps.at(i).section(' ', 1).toUtf8();
        if (verb != "expect" && !connected())
            break;
        if (verb == "send" || verb == "raw" || verb == "flood") {
            peer->write(verb == "send" ? text + '\n' : verb == "raw" ? text : QByteArray(text.toInt(), 'x'));
            peer->waitForBytesWritten(5000);
        } else if (verb == "pause") {
            msleep(text.toULong());
        } else if (verb == "close") {
            peer->close();
        } else if (verb == "expect") {
            const QDeadlineTimer deadline(5000);
            while (!peer->canReadLine() && connected() && !deadline.hasExpired())
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
    while (!m_stop.loadAcquire() && connected())
        peer->waitForReadyRead(20);
    if (peer->bytesAvailable())
        fail("data after the end of the script: " + peer->readAll());
    if (waitForClient(0))
        fail("a second connection");
}
