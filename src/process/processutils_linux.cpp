#include "processutils.h"

#include "logging.h"

#include <QElapsedTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <cerrno>
#include <climits>
#include <csignal>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

// The same answers and log lines as on Windows, read from /proc and given by signals.

namespace {

// The process start time is read in whole seconds of boot time plus clock ticks, and a file's
// time from a coarse clock that small clock corrections also move.
constexpr qint64 StartTimeSlackMs = 2000;

QByteArray procPath(quint32 pid, const char *entry = nullptr)
{
    QByteArray path = "/proc/" + QByteArray::number(pid);
    if (entry)
        path += '/' + QByteArray(entry);
    return path;
}

// The counterpart of opening a process by id. pid 0 and ids beyond pid_t are never a
// process: kill() would read them as "this process group" or as a group id.
bool processExists(quint32 pid)
{
    if (pid == 0 || pid > quint32(INT_MAX))
        return false;
    struct stat info;
    return ::stat(procPath(pid).constData(), &info) == 0;
}

// The state letter of /proc/PID/stat, or 0 when it cannot be read.
char processState(quint32 pid)
{
    QFile file(QString::fromLatin1(procPath(pid, "stat")));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    // "pid (comm) S ...": the name may hold spaces and parentheses, so search from the end.
    const QByteArray stat = file.read(4096);
    const int close = stat.lastIndexOf(')');
    if (close < 0 || close + 2 >= stat.size())
        return 0;
    return stat.at(close + 2);
}

bool hasEnded(quint32 pid)
{
    const char state = processState(pid);
    // Z: exited but not reaped; X/x: being torn down. Both count as ended.
    return state == 0 || state == 'Z' || state == 'X' || state == 'x';
}

// Reaps the process if it is a child of ours, so it does not stay behind as a zombie.
// True when it was our child and has now been reaped.
bool reapChild(quint32 pid)
{
    int status = 0;
    return ::waitpid(pid_t(pid), &status, WNOHANG) == pid_t(pid);
}

// The absolute path of the process's image, or "" when it cannot be read: another account's
// process (EACCES), a kernel thread or a zombie.
QString imagePath(quint32 pid)
{
    char buffer[PATH_MAX + 1] = {};
    const ssize_t length = ::readlink(procPath(pid, "exe").constData(), buffer, PATH_MAX);
    if (length <= 0)
        return QString();
    QString path = QFile::decodeName(QByteArray(buffer, int(length)));
    // A replaced or removed image is still the file the process was started from.
    const QLatin1String deleted(" (deleted)");
    if (path.endsWith(deleted))
        path.chop(deleted.size());
    return path;
}

// When the process started, in ms since the epoch, or -1: its start in clock ticks since boot
// (field 22 of /proc/PID/stat) plus the boot time of /proc/stat.
qint64 processStartMs(quint32 pid)
{
    QFile stat(QString::fromLatin1(procPath(pid, "stat")));
    QFile system(QStringLiteral("/proc/stat"));
    if (!stat.open(QIODevice::ReadOnly) || !system.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = stat.read(4096);
    // Fields after "(comm)" start with the third, the state.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    bool ticksOk = false;
    const qint64 ticks = fields.value(22 - 3).toLongLong(&ticksOk);
    qint64 bootSeconds = -1;
    for (QByteArray line = system.readLine(65536); !line.isEmpty(); line = system.readLine(65536)) {
        if (line.startsWith("btime "))
            bootSeconds = line.mid(6).trimmed().toLongLong();
    }
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (!ticksOk || bootSeconds <= 0 || ticksPerSecond <= 0)
        return -1;
    return bootSeconds * 1000 + ticks * 1000 / ticksPerSecond;
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
    const bool terminated = ::kill(pid_t(pid), SIGKILL) == 0;
    if (!terminated)
        vmCritical("Failed to terminate process with Pid =", pid);

    // Waited for even when the signal failed: the process may be ending by itself.
    bool ended = false;
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        if (reapChild(pid) || hasEnded(pid)) {
            ended = true;
            break;
        }
        if (timer.elapsed() >= 1000)
            break;
        QThread::msleep(10);
    }
    if (!ended)
        vmCritical("destroyProcess: Failed waiting for process end Pid =", pid);
    return terminated && ended;
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
    const qint64 started = processStartMs(pid);
    if (started < 0 || !startedBy.isValid() || started > startedBy.toMSecsSinceEpoch() + StartTimeSlackMs) {
        vmDebug("Process with Pid =", pid, "started after", startedBy.toString(Qt::ISODateWithMs));
        return false;
    }
    return true;
}
