// A QMP quit round trip through the library's client (connect, greeting, capabilities,
// quit, reply) against the same exchange written directly on a QTcpSocket. Both talk to a
// small local QMP endpoint in a thread of its own, so only the client's own cost differs.

#include "benchsupport.h"

#include "qemuclient.h"

#include <QCoreApplication>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <atomic>
#include <cstdio>

namespace {

constexpr int RoundTrips = 200;
const QByteArray Greeting =
    R"({"QMP": {"version": {"qemu": {"micro": 0, "minor": 2, "major": 7}, "package": ""}, "capabilities": ["oob"]}})"
    "\n";

// Greets each connection, answers every request line with an empty return, and closes the
// connection after a quit, as QEMU does.
class ScriptedMonitor : public QThread
{
public:
    quint16 waitForPort()
    {
        while (m_port == 0 && !m_failed)
            QThread::msleep(1);
        return m_port;
    }
    void stop() { m_stop = true; wait(); }

protected:
    void run() override
    {
        QTcpServer server;
        if (!server.listen(QHostAddress::LocalHost, 0)) {
            m_failed = true;
            return;
        }
        m_port = server.serverPort();
        while (!m_stop) {
            if (!server.waitForNewConnection(50))
                continue;
            QTcpSocket *socket = server.nextPendingConnection();
            socket->write(Greeting);
            socket->flush();
            bool open = true;
            while (open && !m_stop) {
                if (!socket->canReadLine() && !socket->waitForReadyRead(1000))
                    break;
                while (socket->canReadLine()) {
                    const QByteArray line = socket->readLine();
                    socket->write("{\"return\": {}}\n");
                    socket->flush();
                    if (line.contains("\"quit\"")) {
                        open = false;
                        break;
                    }
                }
            }
            socket->disconnectFromHost();
            if (socket->state() != QAbstractSocket::UnconnectedState)
                socket->waitForDisconnected(1000);
            delete socket;
        }
    }

private:
    std::atomic<quint16> m_port{0};
    std::atomic<bool> m_failed{false};
    std::atomic<bool> m_stop{false};
};

bool readLine(QTcpSocket &socket, QByteArray &line)
{
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(5000))
            return false;
    }
    line = socket.readLine();
    return true;
}

// The same exchange without the library: the least any client has to do.
bool rawQuit(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(5000))
        return false;
    QByteArray line;
    if (!readLine(socket, line) || !line.contains("QMP"))
        return false;
    socket.write("{\"execute\":\"qmp_capabilities\"}\n");
    if (!readLine(socket, line) || !line.contains("return"))
        return false;
    socket.write("{\"execute\":\"quit\"}\n");
    return readLine(socket, line) && line.contains("return");
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    ScriptedMonitor endpoint;
    endpoint.start();
    const quint16 port = endpoint.waitForPort();
    if (port == 0) {
        std::fprintf(stderr, "bench_qmp: cannot listen on 127.0.0.1\n");
        return 1;
    }

    bool ok = true;
    const double raw = Bench::bestOfMs(3, [&] {
        for (int i = 0; i < RoundTrips; ++i)
            ok = rawQuit(port) && ok;
    });
    const double client = Bench::bestOfMs(3, [&] {
        for (int i = 0; i < RoundTrips; ++i) {
            QEMUClient qmp(port);
            ok = qmp.quit() && ok;
        }
    });
    endpoint.stop();
    if (!ok) {
        std::fprintf(stderr, "bench_qmp: a round trip failed\n");
        return 1;
    }
    Bench::reportRatio(QStringLiteral("QMP quit round trip (QEMUClient vs raw socket)"), client / RoundTrips,
                       raw / RoundTrips, QStringLiteral("ms"), 3);
    return 0;
}
