#pragma once

#include "qmpendpoint.h"

#include <QAtomicInt>
#include <QSemaphore>
#include <QStringList>
#include <QThread>

// A scripted QMP peer on 127.0.0.1 at a free port, or on a Unix socket when given a path, in
// a thread of its own so that it answers while the client blocks the test's thread. Steps:
// "send LINE", "raw BYTES" (no line feed), "expect LINE", "pause MS", "close", "handshake"
// (greeting, qmp_capabilities answered with {}), "flood N" (N bytes without a line feed),
// "repeat N MS STEP" (N times: pause MS, then STEP). Sending stops once the client has left.
// Anything unforeseen fails: another request, data after the end, a second connection, a
// client that leaves early or never comes.
class FakeQmpServer : public QThread
{
public:
    explicit FakeQmpServer(const QStringList &script, const QString &socketPath = QString())
        : m_script(script) { m_endpoint.socketPath = socketPath; }
    ~FakeQmpServer() override { finish(); }
    // Where it listens: port 0 and no path when listening failed.
    QmpEndpoint listen() { start(); m_ready.tryAcquire(1, 5000); return m_endpoint; }
    // Ends the conversation (bounded) and returns every failure; the thread's end publishes them.
    QStringList finish() { m_stop.storeRelease(1); wait(10000); return m_failures; }

private:
    void run() override;
    void fail(const QString &message) { m_failures << message; }  // server thread only

    QStringList m_script, m_failures;
    QSemaphore m_ready;
    QAtomicInt m_stop;
    QmpEndpoint m_endpoint;
};
