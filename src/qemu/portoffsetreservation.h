#pragma once

#include <QString>

#include <memory>
#include <optional>

class QLockFile;

// Keeps a port offset for one start, from the probe of its ports until QEMU has bound them
// (or failed), so that a start of another device picks another offset. Held within the
// process through a shared set, across processes through a lock file per offset in the
// devices folder.
class PortOffsetReservation
{
public:
    explicit PortOffsetReservation(const QString &devicesDirectory);
    ~PortOffsetReservation();
    PortOffsetReservation(const PortOffsetReservation &) = delete;
    PortOffsetReservation &operator=(const PortOffsetReservation &) = delete;

    // Holds offset in place of the one held so far; false when another start holds it.
    bool tryHold(int offset);
    void release();

private:
    QString m_directory;
    std::optional<int> m_offset;
    std::unique_ptr<QLockFile> m_lock;
};
