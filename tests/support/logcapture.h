#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QtGlobal>

// Records every message of the Qt message log while it lives, so a test can assert
// the exact text and level of the lines the library writes.
class LogCapture
{
public:
    struct Entry
    {
        QtMsgType type;
        QString text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines(QtMsgType type) const;
    QStringList all() const;  // every line as "level: text"
    bool contains(QtMsgType type, const QString &text) const;          // exact line
    void clear();
    QString dump() const { return all().join(QLatin1Char('\n')); }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message);

    mutable QMutex m_mutex;
    QList<Entry> m_entries;
    QtMessageHandler m_previous = nullptr;
    LogCapture *m_outer = nullptr;
};
