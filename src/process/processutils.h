#pragma once

#include <QDateTime>
#include <QString>
#include <QtGlobal>

// The process table by process id. Each call opens and closes what it needs; nothing is
// kept, so they may be called from any thread.

// True while the process exists and has not ended (a process that has exited but is not
// yet reaped counts as ended).
bool isRunning(quint32 pid);
// Ends the process by force and waits up to 1000 ms for it; true when it was terminated
// and has ended.
bool destroyProcess(quint32 pid);
// The file name of the process's image, such as "qemu-system-x86_64.exe", or "".
QString processNameByPid(quint32 pid);
// True when the process runs `program` and started no later than `startedBy`, the time a
// record of its pid was written: a later process only reuses the id. On Linux the image
// path must be `program` itself and a process whose image cannot be read (another account's)
// is never taken; on Windows the image name need only be a prefix of the program's file name.
bool runsProgram(quint32 pid, const QString &program, const QDateTime &startedBy);
