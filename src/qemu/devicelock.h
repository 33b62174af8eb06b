#pragma once

#include <QLockFile>
#include <QString>

// Serialises the operations on one device across threads and processes: start, stop,
// delete, clone, reset, snapshots and SD card changes. The lock file lies beside the
// device's folder under a hidden name, which no device can have, so removing the folder
// never removes a held lock.
class DeviceLock
{
public:
    explicit DeviceLock(const QString &devicePath);

    // Waits a few seconds for another operation to end; false, with a critical line that
    // names the device, when it does not, or when the device was deleted meanwhile.
    bool acquire();
    // The same for a device about to be made: its folder need not exist.
    bool acquireForNew();
    // Takes the lock only if it is free at once; silent.
    bool tryAcquire() { return m_lock.tryLock(); }
    // True while another thread or process holds the device's lock.
    static bool isBusy(const QString &devicePath);
    // Replaces the wait of a few seconds, so that tests of a busy device need not wait that long.
    static void setWaitForTesting(int ms);

private:
    QString m_path;
    QString m_name;
    QLockFile m_lock;
};
