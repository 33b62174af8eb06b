#include "processutils.h"

#include "logging.h"

#include <QElapsedTimer>
#include <QFile>
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
    char buffer[PATH_MAX + 1] = {};
    const ssize_t length = ::readlink(procPath(pid, "exe").constData(), buffer, PATH_MAX);
    if (length <= 0) {
        // Another user's process (EACCES), a kernel thread or a zombie has no readable image.
        vmCritical("Failed to get process name for Pid =", pid);
        return QString();
    }
    QString path = QFile::decodeName(QByteArray(buffer, int(length)));
    // A replaced or removed image is still the name the process was started from.
    const QLatin1String deleted(" (deleted)");
    if (path.endsWith(deleted))
        path.chop(deleted.size());
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}
