#pragma once

#include <QString>

// Where a copy has to pass its data through memory: large enough that the calls cost little
// next to the copying, small enough to keep the footprint low.
constexpr qint64 CopyChunkSize = 1024 * 1024;

// Copies one file with the fastest means the platform offers (a reflink or an in-kernel
// copy on Linux, CopyFileW on Windows). Like QFile::copy, an existing destination makes the
// copy fail; a failed copy leaves no partial destination. On failure errorText says why.
bool copyFileFast(const QString &source, const QString &destination, QString *errorText);

#ifdef Q_OS_LINUX
#include <sys/types.h>

// One in-kernel copy_file_range from in (at *inOffset, or at its position when null) to out
// at its position, repeated when a signal interrupts it: the bytes copied, 0 at the end of
// in, -1 with errno on failure.
ssize_t copyFileRange(int in, loff_t *inOffset, int out, size_t length);
// copy_file_range failed with an error that only says the kernel cannot copy between these
// two files (another file system type, no support, a device): a read/write loop can.
bool copyRangeRefused(int error);
#endif
