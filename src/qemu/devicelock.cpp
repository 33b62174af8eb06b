#include "devicelock.h"

#include "logging.h"

#include <QFileInfo>

#include <atomic>

namespace {

// Long enough for a start to launch QEMU, short enough that a user is not left waiting.
std::atomic<int> waitMs{5000};

QString lockPath(const QString &devicePath)
{
    const QFileInfo device(devicePath);
    return device.absolutePath() + QStringLiteral("/.") + device.fileName() + QStringLiteral(".lock");
}

} // namespace

DeviceLock::DeviceLock(const QString &devicePath)
    : m_path(devicePath), m_name(QFileInfo(devicePath).fileName()), m_lock(lockPath(devicePath))
{
    // Only a dead holder frees it: a reset or a clone may take minutes.
    m_lock.setStaleLockTime(0);
}

bool DeviceLock::acquire()
{
    if (!acquireForNew())
        return false;
    // A delete in another process may have come first, while this one waited.
    if (QFileInfo(m_path).isDir())
        return true;
    vmCritical("Device", m_name, "no longer exists");
    m_lock.unlock();
    return false;
}

bool DeviceLock::acquireForNew()
{
    if (m_lock.tryLock(waitMs))
        return true;
    vmCritical("Device", m_name, "is busy with another operation");
    return false;
}

void DeviceLock::setWaitForTesting(int ms)
{
    waitMs = ms;
}

bool DeviceLock::isBusy(const QString &devicePath)
{
    DeviceLock probe(devicePath);
    return !probe.tryAcquire() && probe.m_lock.error() == QLockFile::LockFailedError;
}
