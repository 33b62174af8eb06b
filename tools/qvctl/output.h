#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <mutex>
#include <thread>

// Human-readable tables and key/value blocks on standard output, or one JSON document
// with --json. Errors go to standard error as text; with --json a JSON object as well.
class Output
{
public:
    explicit Output(bool json) : m_json(json) {}

    bool isJson() const { return m_json; }
    void table(const QStringList &headers, const QList<QStringList> &rows) const;
    // Pairs of key and value, in order; shown as "key: value" lines.
    void fields(const QList<QPair<QString, QString>> &pairs) const;
    void message(const QString &text) const;
    void json(const QJsonObject &object) const;
    // Writes the error and returns exitCode so that commands can `return out.fail(...)`.
    // With --json, details join the one failure object.
    int fail(int exitCode, const QString &message, const QString &identifier = QString(),
             const QJsonObject &details = QJsonObject()) const;

    static bool stderrIsTerminal();

private:
    bool m_json;
};

// A spinner with the elapsed time on standard error while a blocking operation runs; only
// on a terminal, so that piped output stays clean. Stops when destroyed.
class Spinner
{
public:
    explicit Spinner(const QString &label);
    ~Spinner();

private:
    void run();

    QString m_label;
    QElapsedTimer m_timer;
    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false;  // guarded by m_mutex
    std::thread m_thread;
};

// Draws "[#####.....] done/total" on a terminal; nothing otherwise.
void drawProgress(int done, int total);
