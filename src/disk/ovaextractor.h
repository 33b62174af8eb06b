#pragma once

#include <QString>

class QFile;

// Unpacks an OVA (a plain tar archive) into destinationDirectory and answers one of the
// result codes below. Files already written stay in place after a failure.
enum OvaResult {
    OvaSuccess = 0,
    OvaArchiveNotReadable = 1,
    OvaOpenFailed = 2,
    OvaReadFailed = 3,
    OvaNextRecordFailed = 4,
    OvaCloseFailed = 5,
    OvaOutputOpenFailed = 6,
    OvaFlushFailed = 7,
    OvaPathEscape = 8,
    OvaDirectoryFailed = 9,
    OvaWriteFailed = 11
};

int extractOva(const QString &archivePath, const QString &destinationDirectory);

// Writes the whole chunk, repeating short writes; false (with a log line) when a write fails.
bool writeFileChunk(QFile &file, const char *data, qint64 size);
