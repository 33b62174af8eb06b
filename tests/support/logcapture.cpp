#include "logcapture.h"

#include <QMutexLocker>

#include <atomic>

namespace {

std::atomic<LogCapture *> g_current{nullptr};

QString prefix(QtMsgType type)
{
    static const char *const levels[] = {"debug: ", "warning: ", "critical: ", "fatal: ", "info: "};
    return QString::fromLatin1(levels[type]);
}

} // namespace

LogCapture::LogCapture()
{
    m_outer = g_current.exchange(this);
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    g_current.store(m_outer);
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    LogCapture *self = g_current.load();
    if (!self)
        return;
    {
        QMutexLocker lock(&self->m_mutex);
        self->m_lines << prefix(type) + message;
    }
    // Let fatal handling see the message too.
    if (type == QtFatalMsg && self->m_previous)
        self->m_previous(type, context, message);
}

QStringList LogCapture::all() const
{
    QMutexLocker lock(&m_mutex);
    return m_lines;
}

QStringList LogCapture::lines(QtMsgType type) const
{
    QStringList texts;
    for (const QString &line : all())
        if (line.startsWith(prefix(type)))
            texts << line.mid(prefix(type).size());
    return texts;
}

void LogCapture::clear()
{
    QMutexLocker lock(&m_mutex);
    m_lines.clear();
}
