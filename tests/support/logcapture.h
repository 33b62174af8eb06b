#pragma once

#include <QMutex>
#include <QStringList>
#include <QtGlobal>

// Records every message of the Qt message log while it lives, as "level: text", so a test
// can assert the exact text and level of the lines the library writes.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList all() const;
    QStringList lines(QtMsgType type) const;  // the texts of one level
    bool contains(QtMsgType type, const QString &text) const { return lines(type).contains(text); }
    void clear();
    QString dump() const { return all().join(QLatin1Char('\n')); }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);

    mutable QMutex m_mutex;
    QStringList m_lines;
    QtMessageHandler m_previous = nullptr;
    LogCapture *m_outer = nullptr;
};
