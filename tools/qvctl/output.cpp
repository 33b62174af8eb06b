#include "output.h"

#include "enginehost.h"

#include <QJsonDocument>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

#ifdef Q_OS_WIN
#include <io.h>
#define QV_ISATTY _isatty
#define QV_STDERR_FD 2
#else
#include <unistd.h>
#define QV_ISATTY isatty
#define QV_STDERR_FD STDERR_FILENO
#endif

void Output::table(const QStringList &headers, const QList<QStringList> &rows) const
{
    QVector<int> widths(headers.size());
    for (int c = 0; c < headers.size(); ++c)
        widths[c] = headers.at(c).size();
    for (const QStringList &row : rows) {
        for (int c = 0; c < widths.size(); ++c)
            widths[c] = qMax(widths[c], row.value(c).size());
    }
    auto print = [&](const QStringList &cells) {
        QString line;
        for (int c = 0; c < widths.size(); ++c)
            line += cells.value(c).leftJustified(widths[c] + 2);
        // The last column, or empty cells at the end, leave no trailing blanks.
        std::printf("%s\n", qPrintable(line.trimmed()));
    };
    print(headers);
    for (const QStringList &row : rows)
        print(row);
    std::fflush(stdout);
}

void Output::fields(const QList<QPair<QString, QString>> &pairs) const
{
    int width = 0;
    for (const auto &pair : pairs)
        width = qMax(width, pair.first.size());
    for (const auto &pair : pairs)
        std::printf("%s %s\n", qPrintable((pair.first + QLatin1Char(':')).leftJustified(width + 1)),
                    qPrintable(pair.second));
    std::fflush(stdout);
}

void Output::message(const QString &text) const
{
    if (m_json)
        return;
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

void Output::json(const QJsonObject &object) const
{
    std::printf("%s", QJsonDocument(object).toJson(QJsonDocument::Indented).constData());
    std::fflush(stdout);
}

int Output::fail(int exitCode, const QString &message, const QString &identifier,
                 const QJsonObject &details) const
{
    const QString prefix = identifier.isEmpty() ? QString() : identifier + QStringLiteral(": ");
    const QString cause = EngineHost::hiddenCritical();
    if (!cause.isEmpty())
        std::fprintf(stderr, "%s\n", qPrintable(cause));
    std::fprintf(stderr, "qvctl: %s%s\n", qPrintable(prefix), qPrintable(message));
    std::fflush(stderr);
    if (m_json) {
        QJsonObject object = details;
        object.insert(QStringLiteral("ok"), false);
        object.insert(QStringLiteral("exitCode"), exitCode);
        object.insert(QStringLiteral("message"), message);
        if (!identifier.isEmpty())
            object.insert(QStringLiteral("error"), identifier);
        json(object);
    }
    return exitCode;
}

bool Output::stderrIsTerminal()
{
    return QV_ISATTY(QV_STDERR_FD);
}

Spinner::Spinner(const QString &label) : m_label(label)
{
    m_timer.start();
    if (Output::stderrIsTerminal())
        m_thread = std::thread([this] { run(); });
}

Spinner::~Spinner()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_one();
    m_thread.join();
    std::fprintf(stderr, "\r\033[K%s done in %.1f s\n", qPrintable(m_label), m_timer.elapsed() / 1000.0);
    std::fflush(stderr);
}

void Spinner::run()
{
    static const char frames[] = {'|', '/', '-', '\\'};
    const QByteArray label = m_label.toLocal8Bit();
    std::unique_lock<std::mutex> lock(m_mutex);
    // The first frame comes however short the work is, so a terminal always sees the spinner.
    for (size_t frame = 0;; ++frame) {
        std::fprintf(stderr, "\r%c %s %.1f s", frames[frame % sizeof frames], label.constData(), m_timer.elapsed() / 1000.0);
        std::fflush(stderr);
        if (m_stopped.wait_for(lock, 100ms, [this] { return m_stop; }))
            return;
    }
}

void drawProgress(int done, int total)
{
    if (!Output::stderrIsTerminal() || total < 1)
        return;
    constexpr int Width = 30;
    const int filled = int(qint64(Width) * qMin(done, total) / total);
    std::fprintf(stderr, "\r[%s%s] %d/%d", QByteArray(filled, '#').constData(),
                 QByteArray(Width - filled, '.').constData(), done, total);
    if (done >= total)
        std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
}
