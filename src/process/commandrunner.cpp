#include "commandrunner.h"

#include "logging.h"
#include "processutils.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QMutex>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <atomic>

namespace {

constexpr int DefaultTimeoutMs = 30000;
constexpr int LongTimeoutMs = 300000;
constexpr int CancelPollMs = 1000;
constexpr int ProcessEndPollMs = 100;

std::atomic<int> defaultTimeoutMs{DefaultTimeoutMs};

// Every failed run is reported through here, even when the caller asked for quiet.
CommandResult failure(qint32 exitCode, const QString &output, const QString &error, bool completed)
{
    vmWarning(exitCode, error, output);
    return CommandResult{exitCode, output, error, completed};
}

// Waits until the process has finished or the deadline has passed; the caller learns which
// from QProcess::finished. On the application's thread it runs a local event loop, so the
// host's interface keeps painting.
void waitForProcessFinished(QProcess &process, QDeadlineTimer deadline)
{
    const QCoreApplication *app = QCoreApplication::instance();
    if (!app || QThread::currentThread() != app->thread()) {
        process.waitForFinished(int(deadline.remainingTime()));
        return;
    }
    if (process.state() == QProcess::NotRunning)
        return;
    QEventLoop loop;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
                     &QEventLoop::quit);
    // A program that cannot be started never sends finished; do not sit out the limit.
    QObject::connect(&process, &QProcess::errorOccurred, &loop, [&loop](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart)
            loop.quit();
    });
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    if (!deadline.isForever())
        timer.start(int(deadline.remainingTime()));
    loop.exec(QEventLoop::ExcludeUserInputEvents);
}

} // namespace

void setDefaultCommandTimeoutForTesting(int ms)
{
    defaultTimeoutMs = ms > 0 ? ms : DefaultTimeoutMs;
}

CommandResult runCommand(const QString &program, const QStringList &arguments, RunFlags flags,
                         std::function<bool()> cancel)
{
    // One tool at a time in the whole library. Not recursive: code reached from the nested
    // event loop must not run a command on the same thread.
    static QMutex mutex;
    const QMutexLocker locker(&mutex);
    const bool quiet = flags.testFlag(Quiet);

    QProcess process;
    // Set by the signal, so a finish that comes just as a wait times out still counts.
    bool finished = false;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished),
                     [&finished] { finished = true; });
    if (!quiet)
        vmDebug("Call:", Log::debugText(arguments));
    process.start(program, arguments, QIODevice::ReadWrite);

    const QDeadlineTimer deadline = flags.testFlag(NoTimeout)
            ? QDeadlineTimer(QDeadlineTimer::Forever)
            : QDeadlineTimer(flags.testFlag(LongTimeout) ? LongTimeoutMs : defaultTimeoutMs.load());
    if (!cancel) {
        waitForProcessFinished(process, deadline);
    } else {
        while (!finished && process.state() != QProcess::NotRunning && !deadline.hasExpired()) {
            if (cancel()) {
                cancel = nullptr;
                process.kill();
                process.waitForFinished(CancelPollMs);
                return failure(-1, QString(), QStringLiteral("canceled"), false);
            }
            waitForProcessFinished(process, qMin(deadline, QDeadlineTimer(CancelPollMs)));
        }
        cancel = nullptr;
    }

    // Some platforms report the status of the child that failed to exec; a program that
    // never ran has no exit code, and callers expect 0 from it.
    const qint32 exitCode = process.error() == QProcess::FailedToStart ? 0 : process.exitCode();
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    const QString error = QString::fromUtf8(process.readAllStandardError());

    if (!finished) {
        // Never started, or still running at the limit: the process object kills it on
        // destruction.
        if (!quiet)
            vmCritical("Can't run", program);
        return failure(exitCode, output, error, false);
    }
    if (exitCode != 0) {
        if (!quiet) {
            vmCritical("Return code:", exitCode);
            const QString trimmedError = error.trimmed();
            if (!trimmedError.isEmpty())
                vmCritical("Output command:", trimmedError);
        }
        return failure(exitCode, output, error, true);
    }
    if (!quiet)
        vmDebug("Return code:", 0);
    return CommandResult{0, output, error, true};
}

bool waitForProcessEnd(quint32 pid, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (isRunning(pid)) {
        if (deadline.hasExpired()) {
            vmWarning("Timeout waiting for process end Pid =", pid);
            return false;
        }
        QThread::msleep(ProcessEndPollMs);
    }
    return true;
}
