#include "qemuclient.h"

#include "logging.h"

#include <QEventLoop>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <QTcpSocket>
#include <QTimer>

namespace {

constexpr int ConnectTimeoutMs = 2000;
constexpr int GreetingTimeoutMs = 2000;
constexpr int CommandTimeoutMs = 1000;
constexpr int SaveVmTimeoutMs = 10000;

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
    : QObject(parent), m_port(port), m_socket(new QTcpSocket)
{
    // Informational only: every call notices a broken connection on its own.
    connect(m_socket, &QAbstractSocket::errorOccurred, this, [this] {
        vmWarning("QEMUClient: unexpected error", m_socket->errorString());
    });
}

QEMUClient::~QEMUClient()
{
    delete m_socket;
}

bool QEMUClient::init()
{
    if (m_initialized)
        return true;

    m_socket->connectToHost(QHostAddress(QHostAddress::LocalHost), m_port, QIODevice::ReadWrite);
    if (!m_socket->waitForConnected(ConnectTimeoutMs)) {
        vmCritical("QEMUClient: connection timeout");
        return false;
    }

    // The greeting is awaited in a nested loop so that a GUI thread keeps painting. It is
    // one line; should it come in pieces, the loop waits for the rest.
    if (!m_socket->canReadLine()) {
        QEventLoop loop;
        QTimer timer;
        timer.setSingleShot(true);
        timer.setTimerType(Qt::CoarseTimer);
        connect(&timer, &QTimer::timeout, &loop, [&loop] { loop.exit(1); });
        connect(m_socket, &QIODevice::readyRead, &loop, [this, &loop] {
            if (m_socket->canReadLine())
                loop.quit();
        });
        timer.start(GreetingTimeoutMs);
        if (loop.exec() != 0) {
            vmWarning("QEMUClient: timeout during initialization");
            return false;
        }
    }

    // Only its presence matters; a bare line feed counts as nothing.
    if (m_socket->readLine().trimmed().isEmpty()) {
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
                         bool silenceIsSuccess)
{
    if (m_socket->state() != QAbstractSocket::ConnectedState) {
        vmCritical("QEMUClient: not connected");
        return false;
    }

    const QByteArray message =
        QJsonDocument(QJsonObject::fromVariantMap(command)).toJson(QJsonDocument::Compact) + '\n';
    // The terminating line feed is left out of the log so the entry stays one line.
    vmDebug("QEMUClient: request", message.left(message.size() - 1));
    // No flush: the waits below push the bytes out.
    if (m_socket->write(message) == -1) {
        vmCritical("QEMUClient: failed to write message to QMP socket");
        return false;
    }

    // Events ("timestamp") may come before the reply; a partly received line is waited
    // for. A wait that brings nothing ends the loop, so a silent or closed peer never
    // keeps the caller here.
    QJsonObject reply;
    for (;;) {
        const bool dataReady = m_socket->canReadLine() || m_socket->waitForReadyRead(timeoutMs);
        if (!dataReady) {
            if (silenceIsSuccess) {
                vmDebug("QEMUClient: did not received response from QMP but it's expected.");
                return true;
            }
            break;
        }
        if (m_socket->canReadLine()) {
            const QByteArray line = m_socket->readLine().trimmed();
            vmDebug("QEMUClient: response", line);
            QJsonParseError error;
            const QJsonDocument document = QJsonDocument::fromJson(line, &error);
            if (!document.isObject() || document.object().isEmpty()) {
                vmCritical("QEMUClient: failed to parse response as JSON", error.errorString());
                return false;
            }
            reply = document.object();
        }
        if (!reply.isEmpty() && !reply.contains(QLatin1String("timestamp")))
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
                            QString(QLatin1String("")), SaveVmTimeoutMs, false);
    if (!ok)
        vmCritical("QEMUClient: failed to save snapshot");
    return ok;
}
