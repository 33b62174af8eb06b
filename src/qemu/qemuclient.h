#pragma once

#include <QObject>
#include <QVariant>
#include <QVariantMap>

QT_BEGIN_NAMESPACE
class QTcpSocket;
QT_END_NAMESPACE

// A short-lived, fully synchronous QMP connection to one running QEMU: an operation
// constructs it for the QMP port, issues one or two commands and destroys it.
class QEMUClient : public QObject
{
    Q_OBJECT
public:
    explicit QEMUClient(quint16 port, QObject *parent = nullptr);
    ~QEMUClient() override;

    // Connects and enables the QMP capabilities once; later calls answer true at once.
    bool init();
    // Sends one command and waits for its reply. A null `expected` accepts any "return".
    bool request(const QVariantMap &command, const QVariant &expected, int timeoutMs,
                 bool silenceIsSuccess);
    bool quit();
    bool saveSnapshot(const QString &name, bool unplugSharedFolder);

private:
    quint16 m_port;
    QTcpSocket *m_socket;
    bool m_initialized = false;
};
