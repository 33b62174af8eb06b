#include "membercopy.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The kernel cannot copy between these two files (another file system on older kernels,
// a device, no support at all); a plain read/write loop can.
bool refused(int error)
{
    return error == EXDEV || error == ENOSYS || error == EINVAL || error == EOPNOTSUPP;
}

bool writeSide(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EPERM || error == ETXTBSY
        || error == EROFS;
}

} // namespace

MemberCopy copyMemberData(FILE *archive, quint64 offset, quint64 size, QFile &out, QString *errorText)
{
    if (size == 0)
        return MemberCopy::Done;
    const int in = ::fileno(archive);
    const int to = out.handle();
    struct stat info {};
    // An archive cut short inside this member is left to the streaming loop, so the part of
    // the member that stays behind is the same whichever way the data would have gone.
    if (in < 0 || to < 0 || ::fstat(in, &info) != 0 || quint64(info.st_size) < offset + size)
        return MemberCopy::Unsupported;

    loff_t from = loff_t(offset);
    quint64 left = size;
    while (left > 0) {
        // Pieces of at most 1 GiB: the kernel caps a single call below 2 GiB anyway.
        const ssize_t n = ::copy_file_range(in, &from, to, nullptr, size_t(std::min<quint64>(left, 1u << 30)), 0);
        if (n > 0) {
            left -= quint64(n);
            continue;
        }
        if (n == 0)  // the archive shrank under us
            return MemberCopy::ReadFailed;
        if (errno == EINTR)
            continue;
        if (left == size && refused(errno))
            return MemberCopy::Unsupported;
        if (!writeSide(errno))
            return MemberCopy::ReadFailed;
        *errorText = QString::fromLocal8Bit(std::strerror(errno));
        return MemberCopy::WriteFailed;
    }
    return MemberCopy::Done;
}
