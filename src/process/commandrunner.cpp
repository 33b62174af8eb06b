#include "commandrunner.h"

#include "logging.h"
#include "processutils.h"

#include <QCoreApplication>
#include <QElapsedTimer>
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

} // namespace

void setDefaultCommandTimeoutForTesting(int ms)
{
    defaultTimeoutMs = ms > 0 ? ms : DefaultTimeoutMs;
}

bool waitForProcessFinished(QProcess &process, int timeoutMs)
{
    const QCoreApplication *app = QCoreApplication::instance();
    if (!app || QThread::currentThread() != app->thread())
        return process.waitForFinished(timeoutMs);

    if (process.state() == QProcess::NotRunning)
        return false;
    QEventLoop loop;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished),
                     &loop, [&loop] { loop.exit(0); });
    // A program that cannot be started never sends finished; do not sit out the limit.
    QObject::connect(&process, &QProcess::errorOccurred, &loop, [&loop](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart)
            loop.exit(-1);
    });
    QTimer timer;
    if (timeoutMs > 0) {
        timer.setSingleShot(true);
        timer.setTimerType(timeoutMs < 2000 ? Qt::PreciseTimer : Qt::CoarseTimer);
        QObject::connect(&timer, &QTimer::timeout, &loop, [&loop] { loop.exit(-1); });
        timer.start(timeoutMs);
    }
    return loop.exec(QEventLoop::ExcludeUserInputEvents) == 0;
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
    // finished can slip past a wait that has just timed out; this flag still sees it.
    bool finished = false;
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished),
                     [&finished] { finished = true; });
    if (!quiet)
        vmDebug("Call:", Log::debugText(arguments));
    process.start(program, arguments, QIODevice::ReadWrite);

    const bool unlimited = flags.testFlag(NoTimeout);
    const int limit = unlimited ? -1
                                : flags.testFlag(LongTimeout) ? LongTimeoutMs : defaultTimeoutMs.load();
    if (!cancel) {
        finished = waitForProcessFinished(process, limit) || finished;
    } else {
        QElapsedTimer elapsed;
        elapsed.start();
        while (!finished && process.state() != QProcess::NotRunning) {
            const qint64 left = unlimited ? CancelPollMs : limit - elapsed.elapsed();
            if (left <= 0)
                break;
            if (cancel()) {
                cancel = nullptr;
                process.kill();
                process.waitForFinished(CancelPollMs);
                return failure(-1, QString(), QStringLiteral("canceled"), false);
            }
            finished = waitForProcessFinished(process, int(qMin<qint64>(CancelPollMs, left)))
                    || finished;
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
    if (!isRunning(pid))
        return true;
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < timeoutMs) {
        QThread::msleep(ProcessEndPollMs);
        if (!isRunning(pid))
            return true;
    }
    vmWarning("Timeout waiting for process end Pid =", pid);
    return false;
}
