#include "filecopy.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

// Owns a descriptor that open() returned: -1 after a failed open, which close() refuses harmlessly.
struct Fd
{
    const int fd;
    ~Fd() { ::close(fd); }
};

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// The rest of the source from the current positions on, through a buffer.
bool copyThroughBuffer(int in, int out)
{
    std::vector<char> buffer(static_cast<size_t>(CopyChunkSize));
    for (;;) {
        const ssize_t r = TEMP_FAILURE_RETRY(::read(in, buffer.data(), buffer.size()));
        if (r <= 0)
            return r == 0;
        for (const char *p = buffer.data(), *end = p + r; p != end;) {
            const ssize_t w = TEMP_FAILURE_RETRY(::write(out, p, size_t(end - p)));
            if (w == -1)
                return false;
            p += w;
        }
    }
}

// copy_file_range copies in the kernel, each call as much as it can, up to the end of the
// source (a call that copies nothing). Where it refuses (another file system type, no
// support), the buffer goes on from where it stopped.
bool copyContents(int in, int out, qint64 size)
{
    for (;;) {
        const ssize_t n = copyFileRange(in, nullptr, out, size_t(size));
        if (n == 0)
            return true;
        if (n == -1)
            return copyRangeRefused(errno) && copyThroughBuffer(in, out);
    }
}

} // namespace

ssize_t copyFileRange(int in, loff_t *inOffset, int out, size_t length)
{
    return TEMP_FAILURE_RETRY(::copy_file_range(in, inOffset, out, nullptr, length, 0));
}

bool copyRangeRefused(int error)
{
    static constexpr int Refusals[] = {EXDEV, ENOSYS, EOPNOTSUPP, EINVAL};
    return std::find(std::begin(Refusals), std::end(Refusals), error) != std::end(Refusals);
}

bool copyFileFast(const QString &source, const QString &destination, QString *errorText)
{
    const QByteArray to = QFile::encodeName(destination);
    const Fd in{::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC)};
    struct stat info {};
    if (in.fd == -1 || ::fstat(in.fd, &info) != 0) {
        *errorText = errnoText();
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *errorText = QStringLiteral("Not a regular file");
        return false;
    }
    const Fd out{::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, info.st_mode & 0777)};
    if (out.fd == -1) {
        *errorText = errnoText();
        return false;
    }
    const bool ok = ::ioctl(out.fd, FICLONE, in.fd) == 0 || copyContents(in.fd, out.fd, info.st_size);
    if (!ok) {
        *errorText = errnoText();
        ::unlink(to.constData());
        return false;
    }
    return true;
}
