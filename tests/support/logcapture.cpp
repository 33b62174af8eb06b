#include "logcapture.h"

#include <QMutexLocker>
#include <QStringList>

#include <atomic>

namespace {
std::atomic<LogCapture *> g_current{nullptr};
}

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
        self->m_entries.append({type, message});
    }
    // Let QTest::ignoreMessage and fatal handling see the message too.
    if (type == QtFatalMsg && self->m_previous)
        self->m_previous(type, context, message);
}

QStringList LogCapture::lines(QtMsgType type) const
{
    QMutexLocker lock(&m_mutex);
    QStringList result;
    for (const Entry &e : m_entries)
        if (e.type == type)
            result << e.text;
    return result;
}

QStringList LogCapture::all() const
{
    static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
    QMutexLocker lock(&m_mutex);
    QStringList result;
    for (const Entry &e : m_entries)
        result << QString::fromLatin1(levels[e.type]) + QStringLiteral(": ") + e.text;
    return result;
}

bool LogCapture::contains(QtMsgType type, const QString &text) const
{
    return lines(type).contains(text);
}

void LogCapture::clear()
{
    QMutexLocker lock(&m_mutex);
    m_entries.clear();
}
