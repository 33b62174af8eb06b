#include "membercopy.h"

// No in-kernel copy between a read stream and a file here: the extractor streams the data
// through its own buffer.
MemberCopy copyMemberData(FILE *, quint64, quint64, QFile &, QString *)
{
    return MemberCopy::Unsupported;
}
