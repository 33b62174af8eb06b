#include "fakeqmpserver.h"

#include <QDeadlineTimer>
#include <QHostAddress>
#include <QMutexLocker>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <functional>

FakeQmpServer::FakeQmpServer() = default;

FakeQmpServer::~FakeQmpServer()
{
    quit();
    wait(5000);
}

QByteArray FakeQmpServer::greetingLine()
{
    return R"({"QMP": {"version": {"qemu": {"micro": 0, "minor": 2, "major": 7}, "package": ""}, "capabilities": ["oob"]}})";
}

FakeQmpServer &FakeQmpServer::sendLine(const QByteArray &line)
{
    return sendRaw(line + '\n');
}

FakeQmpServer &FakeQmpServer::sendRaw(const QByteArray &bytes)
{
    m_steps.append({Kind::Send, bytes});
    return *this;
}

FakeQmpServer &FakeQmpServer::expectLine(const QByteArray &line)
{
    m_steps.append({Kind::Expect, line});
    return *this;
}

FakeQmpServer &FakeQmpServer::pause(int ms)
{
    m_steps.append({Kind::Pause, QByteArray(), ms});
    return *this;
}

FakeQmpServer &FakeQmpServer::closeConnection()
{
    m_steps.append({Kind::Close, QByteArray()});
    return *this;
}

FakeQmpServer &FakeQmpServer::handshake()
{
    return sendLine(greetingLine())
        .expectLine(R"({"execute":"qmp_capabilities"})")
        .sendLine(R"({"return": {}})");
}

FakeQmpServer &FakeQmpServer::addScript(const QStringList &steps)
{
    for (const QString &entry : steps) {
        const int space = entry.indexOf(QLatin1Char(' '));
        const QString verb = space < 0 ? entry : entry.left(space);
        const QByteArray text = space < 0 ? QByteArray() : entry.mid(space + 1).toUtf8();
        bool ok = true;
        if (verb == QLatin1String("send"))
            sendLine(text);
        else if (verb == QLatin1String("raw"))
            sendRaw(text);
        else if (verb == QLatin1String("expect"))
            expectLine(text);
        else if (verb == QLatin1String("pause"))
            pause(text.toInt(&ok));
        else if (verb == QLatin1String("close"))
            closeConnection();
        else if (verb == QLatin1String("handshake"))
            handshake();
        else
            ok = false;
        if (!ok)
            fail(QStringLiteral("bad script entry: %1").arg(entry));
    }
    return *this;
}

quint16 FakeQmpServer::start()
{
    QThread::start();
    QMutexLocker lock(&m_mutex);
    QDeadlineTimer deadline(5000);
    while (!m_listening && isRunning() && !deadline.hasExpired())
        m_changed.wait(&m_mutex, deadline);
    return m_port;
}

quint16 FakeQmpServer::port() const
{
    QMutexLocker lock(&m_mutex);
    return m_port;
}

int FakeQmpServer::connectionCount() const
{
    QMutexLocker lock(&m_mutex);
    return m_connections;
}

QStringList FakeQmpServer::finish(int timeoutMs)
{
    QMutexLocker lock(&m_mutex);
    QDeadlineTimer deadline(timeoutMs);
    while (!m_scriptDone && !deadline.hasExpired())
        m_changed.wait(&m_mutex, deadline);
    if (m_connections == 0)
        m_failures << QStringLiteral("no client connected");
    else if (!m_scriptDone && m_nextStep < m_steps.size())
        m_failures << QStringLiteral("script stopped at step %1: %2")
                          .arg(m_nextStep + 1)
                          .arg(describe(m_steps.at(m_nextStep)));

    // Give a client that is still sending (or closing) a moment, so that requests
    // after the end of the script are caught rather than lost.
    QDeadlineTimer grace(200);
    while (m_connections > 0 && !m_peerGone && !grace.hasExpired())
        m_changed.wait(&m_mutex, grace);
    lock.unlock();

    quit();
    wait(5000);
    lock.relock();
    return m_failures;
}

void FakeQmpServer::fail(const QString &message)
{
    QMutexLocker lock(&m_mutex);
    m_failures << message;
    m_changed.wakeAll();
}

QString FakeQmpServer::describe(const Step &step)
{
    switch (step.kind) {
    case Kind::Send:
        return QStringLiteral("send %1").arg(QString::fromUtf8(step.data));
    case Kind::Expect:
        return QStringLiteral("expect %1").arg(QString::fromUtf8(step.data));
    case Kind::Pause:
        return QStringLiteral("pause %1").arg(step.ms);
    case Kind::Close:
        return QStringLiteral("close");
    }
    return QString();
}

void FakeQmpServer::run()
{
    QTcpServer server;
    if (!server.listen(QHostAddress(QHostAddress::LocalHost), 0)) {
        fail(QStringLiteral("cannot listen: %1").arg(server.errorString()));
        QMutexLocker lock(&m_mutex);
        m_changed.wakeAll();
        return;
    }

    QTcpSocket *peer = nullptr;
    bool paused = false;
    bool aborted = false;
    bool closedByScript = false;

    auto setNext = [this](int index, bool done) {
        QMutexLocker lock(&m_mutex);
        m_nextStep = index;
        m_scriptDone = done;
        m_changed.wakeAll();
    };
    auto reportExtraData = [this, &peer] {
        const QByteArray extra = peer->readAll();
        if (!extra.isEmpty())
            fail(QStringLiteral("data after the end of the script: %1").arg(QString::fromUtf8(extra)));
    };

    std::function<void()> advance = [&] {
        int index;
        {
            QMutexLocker lock(&m_mutex);
            index = m_nextStep;
        }
        while (!aborted && !paused) {
            if (index >= m_steps.size()) {
                setNext(index, true);
                reportExtraData();
                return;
            }
            const Step &step = m_steps.at(index);
            switch (step.kind) {
            case Kind::Send:
                peer->write(step.data);
                peer->flush();
                break;
            case Kind::Close:
                closedByScript = true;
                peer->disconnectFromHost();
                break;
            case Kind::Pause:
                paused = true;
                setNext(index + 1, false);
                QTimer::singleShot(step.ms, &server, [&] {
                    paused = false;
                    advance();
                });
                return;
            case Kind::Expect: {
                if (!peer->canReadLine())
                    return;  // readyRead brings us back
                QByteArray line = peer->readLine();
                line.chop(1);
                if (line != step.data) {
                    fail(QStringLiteral("step %1: expected %2 but the client sent %3")
                             .arg(index + 1)
                             .arg(QString::fromUtf8(step.data), QString::fromUtf8(line)));
                    aborted = true;
                    peer->abort();
                    return;
                }
                break;
            }
            }
            setNext(++index, false);
        }
    };

    connect(&server, &QTcpServer::newConnection, &server, [&] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            int count;
            {
                QMutexLocker lock(&m_mutex);
                count = ++m_connections;
            }
            if (count > 1) {
                fail(QStringLiteral("unexpected connection #%1").arg(count));
                socket->abort();
                socket->deleteLater();
                continue;
            }
            peer = socket;
            connect(peer, &QIODevice::readyRead, &server, [&] {
                bool done;
                {
                    QMutexLocker lock(&m_mutex);
                    done = m_scriptDone;
                }
                if (done)
                    reportExtraData();
                else if (!paused && !aborted)
                    advance();
            });
            connect(peer, &QAbstractSocket::disconnected, &server, [&] {
                QMutexLocker lock(&m_mutex);
                m_peerGone = true;
                if (!m_scriptDone && !aborted && !closedByScript && m_nextStep < m_steps.size())
                    m_failures << QStringLiteral("client closed the connection before step %1: %2")
                                      .arg(m_nextStep + 1)
                                      .arg(describe(m_steps.at(m_nextStep)));
                m_changed.wakeAll();
            });
            advance();
        }
    });

    {
        QMutexLocker lock(&m_mutex);
        m_port = server.serverPort();
        m_listening = true;
        m_changed.wakeAll();
    }
    exec();

    // The socket outlives the locals its handlers use; silence it before they go.
    if (peer)
        QObject::disconnect(peer, nullptr, nullptr, nullptr);
}
