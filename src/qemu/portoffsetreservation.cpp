#include "portoffsetreservation.h"

#include "logging.h"

#include <QDir>
#include <QLockFile>
#include <QMutex>
#include <QSet>

namespace {

// Ports belong to the host, not to a devices folder: one set for the whole process.
QMutex heldMutex;
QSet<int> heldOffsets;

} // namespace

PortOffsetReservation::PortOffsetReservation(const QString &devicesDirectory)
    : m_directory(devicesDirectory)
{
}

PortOffsetReservation::~PortOffsetReservation()
{
    release();
}

bool PortOffsetReservation::tryHold(int offset)
{
    release();
    {
        QMutexLocker locker(&heldMutex);
        if (heldOffsets.contains(offset))
            return false;
        heldOffsets.insert(offset);
    }

    auto lock = std::make_unique<QLockFile>(
            QDir(m_directory).filePath(QStringLiteral(".port-offset-%1.lock").arg(offset)));
    // Only a dead holder frees it: a start may wait on a slow QEMU for longer than any age.
    lock->setStaleLockTime(0);
    if (lock->tryLock()) {
        m_lock = std::move(lock);
    } else if (lock->error() == QLockFile::LockFailedError) {
        QMutexLocker locker(&heldMutex);
        heldOffsets.remove(offset);
        return false;
    } else {
        // A folder we cannot write to still lets this process keep its own starts apart.
        vmDebug("Cannot hold port offset", offset, "for other processes in", m_directory);
    }
    m_offset = offset;
    return true;
}

void PortOffsetReservation::release()
{
    if (!m_offset)
        return;
    m_lock.reset();  // unlocks and removes the file
    QMutexLocker locker(&heldMutex);
    heldOffsets.remove(*m_offset);
    m_offset.reset();
}
