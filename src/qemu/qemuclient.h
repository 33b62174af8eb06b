#pragma once

#include "qmpendpoint.h"

#include <QObject>
#include <QVariant>
#include <QVariantMap>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

// A short-lived, fully synchronous QMP connection to one running QEMU: an operation
// constructs it for the QMP endpoint, issues one or two commands and destroys it.
class QEMUClient : public QObject
{
    Q_OBJECT
public:
    // Waits for one piece of a conversation.
    static constexpr int ConnectTimeoutMs = 2000;
    static constexpr int GreetingTimeoutMs = 2000;
    static constexpr int CommandTimeoutMs = 1000;   // per wait for a reply
    static constexpr int SaveVmTimeoutMs = 10000;   // per wait for the savevm reply
    // Overall limits of one request, whatever the peer sends meanwhile (events, a line in
    // pieces). QEMU answers these commands at once, so five of their waits are plenty;
    // savevm answers once the whole guest memory is written, which takes seconds per GiB of
    // used memory.
    static constexpr int CommandDeadlineMs = 5 * CommandTimeoutMs;
    static constexpr int SaveVmDeadlineMs = 120000;
    // Lines from the peer must be shorter than this, line feed included.
    static constexpr qint64 MaxLineBytes = 1024 * 1024;

    explicit QEMUClient(quint16 port, QObject *parent = nullptr);
    explicit QEMUClient(const QmpEndpoint &endpoint, QObject *parent = nullptr);
    ~QEMUClient() override;

    // Multiplies every request's wait and deadline, so that tests can run them quickly.
    static void setTimeScale(double factor);

    // Connects and enables the QMP capabilities once; later calls answer true at once.
    bool init();
    // Sends one command and waits for its reply. A null `expected` accepts any "return".
    bool request(const QVariantMap &command, const QVariant &expected, int timeoutMs,
                 bool silenceIsSuccess, int deadlineMs = CommandDeadlineMs);
    bool quit();
    bool saveSnapshot(const QString &name, bool unplugSharedFolder);

private:
    bool connectToPeer();
    bool isConnected() const;
    bool lineTooLong();

    QmpEndpoint m_endpoint;
    QIODevice *m_socket;  // a QTcpSocket or a QLocalSocket
    bool m_initialized = false;
    bool m_quitSent = false;
};
