#include "processutils.h"

#include "logging.h"

#include <QByteArrayList>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <csignal>
#include <limits>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

// The same answers and log lines as on Windows, read from /proc and given by signals.

namespace {

// The process start time is read in whole seconds of boot time plus clock ticks, and a file's
// time from a coarse clock that small clock corrections also move.
constexpr qint64 StartTimeSlackMs = 2000;
// Lines of /proc files are short, but every read has a limit.
constexpr qint64 ProcLineLimit = 65536;

QByteArray procPath(quint32 pid, const char *entry = nullptr)
{
    QByteArray path = "/proc/" + QByteArray::number(pid);
    if (entry)
        path += '/' + QByteArray(entry);
    return path;
}

// The counterpart of opening a process by id. /proc has no entry for pid 0 nor for ids
// beyond the largest pid.
bool processExists(quint32 pid)
{
    struct stat info;
    return ::stat(procPath(pid).constData(), &info) == 0;
}

// The fields of /proc/PID/stat from the third, the state, on; none when the process is gone.
QByteArrayList statFields(quint32 pid)
{
    QFile file(QString::fromLatin1(procPath(pid, "stat")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    // "pid (comm) S ...": the name may hold spaces and parentheses, so search from the end.
    const QByteArray text = file.readLine(ProcLineLimit);
    return text.mid(text.lastIndexOf(')') + 2).split(' ');
}

bool hasEnded(quint32 pid)
{
    // Z: exited but not reaped; X (x on older kernels): being torn down. A process whose entry
    // is gone has ended as well.
    static const QByteArrayList endedStates{"Z", "X", "x"};
    const QByteArray state = statFields(pid).value(0);
    return state.isEmpty() || endedStates.contains(state);
}

// The absolute path of the process's image, or "" when it cannot be read: another account's
// process (EACCES), a kernel thread or a zombie.
QString imagePath(quint32 pid)
{
    QString path = QFile::symLinkTarget(QString::fromLatin1(procPath(pid, "exe")));
    // A replaced or removed image is still the file the process was started from.
    const QLatin1String deleted(" (deleted)");
    if (path.endsWith(deleted))
        path.chop(deleted.size());
    return path;
}

// Seconds since the epoch at boot: the "btime" line of /proc/stat, which Linux always has.
qint64 bootSeconds()
{
    QFile file(QStringLiteral("/proc/stat"));
    QByteArray line;
    if (file.open(QIODevice::ReadOnly)) {
        do
            line = file.readLine(ProcLineLimit);
        while (!line.isEmpty() && !line.startsWith("btime "));
    }
    return line.mid(6).trimmed().toLongLong();
}

// When the process started, in ms since the epoch: its start in clock ticks since boot (field
// 22 of /proc/PID/stat) plus the boot time. A start that cannot be read (the process has just
// gone) is later than any time.
qint64 processStartMs(quint32 pid)
{
    bool ok;
    const qint64 ticks = statFields(pid).value(22 - 3).toLongLong(&ok);
    if (!ok)
        return std::numeric_limits<qint64>::max();
    const qint64 ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    return (bootSeconds() * ticksPerSecond + ticks) * 1000 / ticksPerSecond;
}

} // namespace

bool isRunning(quint32 pid)
{
    if (!processExists(pid)) {
        // A dead pid is an ordinary answer here, not a fault.
        vmDebug("Failed to open process with Pid =", pid);
        return false;
    }
    return !hasEnded(pid);
}

bool destroyProcess(quint32 pid)
{
    if (!processExists(pid)) {
        vmCritical("Failed to open process with Pid =", pid);
        return false;
    }
    // kill() would read 0 and ids beyond pid_t as process groups. /proc has no entry for them,
    // and the signal refuses them as well, so no fault can ever end a whole group.
    const bool terminated = pid_t(pid) > 0 && ::kill(pid_t(pid), SIGKILL) == 0;
    if (!terminated)
        vmCritical("Failed to terminate process with Pid =", pid);

    // Waited for even when the signal failed: the process may be ending by itself.
    const QDeadlineTimer deadline(1000);
    while (!hasEnded(pid)) {
        if (deadline.hasExpired()) {
            vmCritical("destroyProcess: Failed waiting for process end Pid =", pid);
            return false;
        }
        QThread::msleep(10);
    }
    // A child of ours is reaped, so it does not stay behind as a zombie.
    ::waitpid(pid_t(pid), nullptr, WNOHANG);
    return terminated;
}

QString processNameByPid(quint32 pid)
{
    if (!processExists(pid)) {
        vmCritical("Failed to open process with Pid =", pid);
        return QString();
    }
    const QString path = imagePath(pid);
    if (path.isEmpty()) {
        vmCritical("Failed to get process name for Pid =", pid);
        return QString();
    }
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

bool runsProgram(quint32 pid, const QString &program, const QDateTime &startedBy)
{
    if (!processExists(pid))
        return false;
    const QString image = imagePath(pid);
    const QFileInfo info(program);
    // An uninstalled program has no canonical path; its running image still has the old one.
    const QString expected = info.exists() ? info.canonicalFilePath() : QDir::cleanPath(info.absoluteFilePath());
    if (image.isEmpty() || image != expected) {
        vmDebug("Process with Pid =", pid, "does not run", expected);
        return false;
    }
    if (!startedBy.isValid() || processStartMs(pid) > startedBy.toMSecsSinceEpoch() + StartTimeSlackMs) {
        vmDebug("Process with Pid =", pid, "started after", startedBy.toString(Qt::ISODateWithMs));
        return false;
    }
    return true;
}
