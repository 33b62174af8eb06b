#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>

// A scripted QMP peer for tests. It listens on 127.0.0.1 at a free port in a thread of
// its own, so it keeps answering while the client blocks the test's thread, and plays
// its script against the first connection. Anything the script does not foresee (a
// different request, data after the script's end, a second connection, the client
// leaving early) is recorded as a failure; finish() returns them all.
class FakeQmpServer : public QThread
{
    Q_OBJECT
public:
    FakeQmpServer();
    ~FakeQmpServer() override;

    static QByteArray greetingLine();  // a realistic QMP greeting, without line feed

    // Script steps, played in order. Build the script before start().
    FakeQmpServer &sendLine(const QByteArray &line);   // line plus a line feed
    FakeQmpServer &sendRaw(const QByteArray &bytes);   // exactly these bytes
    FakeQmpServer &expectLine(const QByteArray &line); // next request line, without line feed
    FakeQmpServer &pause(int ms);                      // stay silent, then go on
    FakeQmpServer &closeConnection();
    FakeQmpServer &handshake();  // greeting, then qmp_capabilities answered with {}

    // Steps written one per entry: "send TEXT", "raw TEXT", "expect TEXT", "pause MS",
    // "close", "handshake". Handy for data-driven tests; a bad entry is a failure.
    FakeQmpServer &addScript(const QStringList &steps);

    // Listens and returns the port, or 0 when listening failed.
    quint16 start();
    quint16 port() const;
    int connectionCount() const;

    // Waits (bounded) until the script has been played and the client has had a moment
    // to send anything more, stops the server and returns every failure seen.
    QStringList finish(int timeoutMs = 5000);

protected:
    void run() override;

private:
    enum class Kind { Send, Expect, Pause, Close };
    struct Step
    {
        Kind kind;
        QByteArray data;
        int ms = 0;
    };

    void fail(const QString &message);
    static QString describe(const Step &step);

    QList<Step> m_steps;
    mutable QMutex m_mutex;
    QWaitCondition m_changed;
    QStringList m_failures;
    quint16 m_port = 0;
    bool m_listening = false;
    bool m_scriptDone = false;
    bool m_peerGone = false;
    int m_connections = 0;
    int m_nextStep = 0;
};
