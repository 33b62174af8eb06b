#include "qemuclient.h"

#include "logging.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QLocalSocket>
#include <QTcpSocket>
#include <QTimer>

namespace {

double timeScale = 1.0;

int scaled(int ms)
{
    return qRound(ms * timeScale);
}

bool isEvent(const QJsonObject &reply)
{
    return reply.contains(QLatin1String("timestamp"));
}

QVariantMap humanMonitorCommand(const QString &commandLine)
{
    return {{QStringLiteral("execute"), QStringLiteral("human-monitor-command")},
            {QStringLiteral("arguments"),
             QVariantMap{{QStringLiteral("command-line"), commandLine}}}};
}

QVariantMap simpleCommand(const char *name)
{
    return {{QStringLiteral("execute"), QString::fromLatin1(name)}};
}

// Values are logged as compact JSON so that an empty string still shows as "" and an
// absent member as null.
QString jsonText(const QJsonValue &value)
{
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(wrapped.mid(1, wrapped.size() - 2));
}

} // namespace

QEMUClient::QEMUClient(quint16 port, QObject *parent)
    : QEMUClient(QmpEndpoint{port, QString()}, parent)
{
}

QEMUClient::QEMUClient(const QmpEndpoint &endpoint, QObject *parent)
    : QObject(parent), m_endpoint(endpoint)
{
    // Informational only: every call notices a broken connection on its own. QEMU exiting
    // on quit closes the connection, which is how a stop normally ends.
    const auto report = [this](bool peerClosed) {
        if (peerClosed && m_quitSent)
            vmDebug("QEMUClient: QEMU closed the connection after quit");
        else
            vmWarning("QEMUClient: unexpected error", m_socket->errorString());
    };
    if (endpoint.isLocalSocket()) {
        auto *socket = new QLocalSocket;
        connect(socket, &QLocalSocket::errorOccurred, this, [report](QLocalSocket::LocalSocketError error) {
            report(error == QLocalSocket::PeerClosedError);
        });
        m_socket = socket;
    } else {
        auto *socket = new QTcpSocket;
        connect(socket, &QAbstractSocket::errorOccurred, this, [report](QAbstractSocket::SocketError error) {
            report(error == QAbstractSocket::RemoteHostClosedError);
        });
        m_socket = socket;
    }
}

QEMUClient::~QEMUClient()
{
    delete m_socket;
}

void QEMUClient::setTimeScale(double factor)
{
    timeScale = factor;
}

bool QEMUClient::connectToPeer()
{
    if (auto *local = qobject_cast<QLocalSocket *>(m_socket)) {
        local->connectToServer(m_endpoint.socketPath, QIODevice::ReadWrite);
        return local->waitForConnected(ConnectTimeoutMs);
    }
    auto *tcp = static_cast<QTcpSocket *>(m_socket);
    tcp->connectToHost(QHostAddress(QHostAddress::LocalHost), m_endpoint.port, QIODevice::ReadWrite);
    return tcp->waitForConnected(ConnectTimeoutMs);
}

bool QEMUClient::isConnected() const
{
    if (auto *local = qobject_cast<QLocalSocket *>(m_socket))
        return local->state() == QLocalSocket::ConnectedState;
    return static_cast<QTcpSocket *>(m_socket)->state() == QAbstractSocket::ConnectedState;
}

// A peer that never ends its line must not grow the buffer without end; what follows
// such a line cannot be trusted either, so the connection goes.
bool QEMUClient::lineTooLong()
{
    vmCritical("QEMUClient: reply line longer than", MaxLineBytes, "bytes");
    m_socket->close();
    return false;
}

bool QEMUClient::init()
{
    if (m_initialized)
        return true;

    if (!connectToPeer()) {
        vmCritical("QEMUClient: connection timeout");
        return false;
    }

    // The greeting is awaited in a nested loop so that a GUI thread keeps painting. It is
    // one line; should it come in pieces, the loop waits for the rest.
    if (!m_socket->canReadLine()) {
        QEventLoop loop;
        // The loop is its context: a greeting that came first leaves it nothing to end.
        QTimer::singleShot(GreetingTimeoutMs, Qt::CoarseTimer, &loop, [&loop] { loop.exit(1); });
        connect(m_socket, &QIODevice::readyRead, &loop, [this, &loop] {
            if (m_socket->canReadLine())
                loop.quit();
            else if (m_socket->bytesAvailable() >= MaxLineBytes)
                loop.exit(2);
        });
        const int result = loop.exec();
        if (result == 2)
            return lineTooLong();
        if (result != 0) {
            vmWarning("QEMUClient: timeout during initialization");
            return false;
        }
    }

    // Only its presence matters; a bare line feed counts as nothing.
    if (m_socket->readLine(MaxLineBytes).trimmed().isEmpty()) {
        vmWarning("QEMUClient: bad message during initialization");
        return false;
    }

    vmDebug("QEMUClient: enabling QMP capabilities");
    if (!request(simpleCommand("qmp_capabilities"), QVariantMap(), CommandTimeoutMs, false)) {
        vmCritical("QEMUClient: failed to enable QMP capabilities");
        return false;
    }
    m_initialized = true;
    return true;
}

bool QEMUClient::request(const QVariantMap &command, const QVariant &expected, int timeoutMs,
                         bool silenceIsSuccess, int deadlineMs)
{
    if (!isConnected()) {
        vmCritical("QEMUClient: not connected");
        return false;
    }

    const QByteArray message =
        QJsonDocument(QJsonObject::fromVariantMap(command)).toJson(QJsonDocument::Compact) + '\n';
    // The terminating line feed is left out of the log so the entry stays one line.
    vmDebug("QEMUClient: request", message.left(message.size() - 1));
    // No flush: the waits below push the bytes out.
    if (m_socket->write(message) != message.size()) {
        vmCritical("QEMUClient: failed to write message to QMP socket");
        return false;
    }

    // Events ("timestamp") may come before the reply, and QEMU sends STOP long before it
    // answers savevm: after an event a silent wait is waited again. A partly received line
    // is waited for. A silent wait without an event ends the loop; the deadline ends it
    // whatever the peer sends.
    const int waitMs = scaled(timeoutMs), limitMs = scaled(deadlineMs);
    const QDeadlineTimer deadline(limitMs);
    QJsonObject reply;
    for (;;) {
        if (!m_socket->canReadLine()) {
            if (m_socket->bytesAvailable() >= MaxLineBytes)
                return lineTooLong();
            const int sliceMs = int(qMin<qint64>(waitMs, deadline.remainingTime()));
            if (!deadline.hasExpired() && m_socket->waitForReadyRead(sliceMs))
                continue;
            if (sliceMs < waitMs) {
                vmCritical("QEMUClient: no reply within", limitMs, "ms");
                return false;
            }
            if (silenceIsSuccess) {
                vmDebug("QEMUClient: did not received response from QMP but it's expected.");
                return true;
            }
            if (isEvent(reply) && isConnected())
                continue;
            break;
        }
        const QByteArray raw = m_socket->readLine(MaxLineBytes);
        if (!raw.endsWith('\n'))
            return lineTooLong();
        const QByteArray line = raw.trimmed();
        vmDebug("QEMUClient: response", line);
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line, &error);
        if (!document.isObject() || document.object().isEmpty()) {
            vmCritical("QEMUClient: failed to parse response as JSON", error.errorString());
            return false;
        }
        reply = document.object();
        if (!isEvent(reply))
            break;
    }

    if (!reply.contains(QLatin1String("return"))) {
        vmDebug("QEMUClient: error returned from QMP", jsonText(reply.value(QLatin1String("error"))));
        return false;
    }
    if (expected.isNull())
        return true;

    const QJsonValue returned = reply.value(QLatin1String("return"));
    const QJsonValue wanted = QJsonValue::fromVariant(expected);
    if (returned != wanted) {
        vmCritical("QEMUClient: QEMU returned", jsonText(returned), "while we expected",
                   jsonText(wanted));
        return false;
    }
    return true;
}

bool QEMUClient::quit()
{
    if (!init())
        return false;
    vmDebug("QEMUClient: sending quit command");
    // QEMU often closes the connection before it answers: silence counts as success.
    m_quitSent = true;
    const bool ok = request(simpleCommand("quit"), QVariantMap(), CommandTimeoutMs, true);
    if (!ok)
        vmCritical("QEMUClient: failed to quit");
    return ok;
}

bool QEMUClient::saveSnapshot(const QString &name, bool unplugSharedFolder)
{
    if (!init())
        return false;

    // The shared folder drive cannot be snapshotted; QEMU refuses savevm while it is there.
    if (unplugSharedFolder) {
        vmDebug("QEMUClient: unplugging shared folder");
        if (!request(humanMonitorCommand(QStringLiteral("drive_del shared")), QVariant(),
                     CommandTimeoutMs, false)) {
            vmCritical("QEMUClient: failed to unplug shared folder");
            return false;
        }
    }

    // The human monitor answers success with an empty string and failure with text.
    vmDebug("QEMUClient: saving snapshot");
    const bool ok = request(humanMonitorCommand(QStringLiteral("savevm %1").arg(name)),
                            QString(QLatin1String("")), SaveVmTimeoutMs, false, SaveVmDeadlineMs);
    if (!ok)
        vmCritical("QEMUClient: failed to save snapshot");
    return ok;
}
