#include "membercopy.h"

#include "filecopy.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sys/stat.h>

namespace {

// Errors of the output side, reported with their text as a failed write.
bool writeSide(int error)
{
    static constexpr int WriteErrors[] = {ENOSPC, EDQUOT, EFBIG, EPERM, ETXTBSY, EROFS};
    return std::find(std::begin(WriteErrors), std::end(WriteErrors), error) != std::end(WriteErrors);
}

} // namespace

MemberCopy copyMemberData(FILE *archive, quint64 offset, quint64 size, QFile &out, QString *errorText)
{
    const int in = ::fileno(archive);
    struct stat info {};
    // An archive cut short inside this member is left to the streaming loop, so the part of
    // the member that stays behind is the same whichever way the data would have gone.
    if (::fstat(in, &info) != 0 || quint64(info.st_size) < offset + size)
        return MemberCopy::Unsupported;

    loff_t from = loff_t(offset);
    quint64 left = size;
    while (left > 0) {
        // The kernel caps a single call below 2 GiB and answers how much it copied.
        const ssize_t n = copyFileRange(in, &from, out.handle(), size_t(left));
        if (n == 0)  // the archive shrank under us
            return MemberCopy::ReadFailed;
        if (n == -1) {
            if (left == size && copyRangeRefused(errno))
                return MemberCopy::Unsupported;
            if (!writeSide(errno))
                return MemberCopy::ReadFailed;
            *errorText = QString::fromLocal8Bit(std::strerror(errno));
            return MemberCopy::WriteFailed;
        }
        left -= quint64(n);
    }
    return MemberCopy::Done;
}
