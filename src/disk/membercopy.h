#pragma once

#include <QString>

#include <cstdio>

class QFile;

enum class MemberCopy {
    Done,
    Unsupported,  // nothing was copied; stream the data instead
    ReadFailed,   // the archive ended early or could not be read
    WriteFailed   // errorText says why
};

// Copies size bytes at offset of the archive into out, which was just opened and holds
// nothing buffered, by the fastest means the platform offers. The archive stream's own
// position is left alone, so the tar reader stays where it was.
MemberCopy copyMemberData(FILE *archive, quint64 offset, quint64 size, QFile &out, QString *errorText);
