#include "filecopy.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

namespace {

struct Fd
{
    int fd = -1;
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

QString errnoText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

// copy_file_range does the copy in the kernel; file systems that cannot do it (or older
// kernels) fall back to a plain read/write loop.
bool copyContents(int in, int out, qint64 size)
{
    qint64 left = size;
    while (left > 0) {
        const ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, size_t(left), 0);
        if (n > 0) {
            left -= n;
            continue;
        }
        if (n == 0)
            break;
        if (errno == EINTR)
            continue;
        if (left != size || (errno != EXDEV && errno != ENOSYS && errno != EOPNOTSUPP && errno != EINVAL))
            return false;
        break;
    }
    if (left == 0)
        return true;
    if (::lseek(in, size - left, SEEK_SET) < 0 || ::lseek(out, size - left, SEEK_SET) < 0)
        return false;
    static constexpr size_t BufferSize = 1 << 20;
    std::vector<char> buffer(BufferSize);
    for (;;) {
        const ssize_t r = ::read(in, buffer.data(), BufferSize);
        if (r == 0)
            return true;
        if (r < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        for (ssize_t done = 0; done < r;) {
            const ssize_t w = ::write(out, buffer.data() + done, size_t(r - done));
            if (w < 0) {
                if (errno == EINTR)
                    continue;
                return false;
            }
            done += w;
        }
    }
}

} // namespace

bool copyFileFast(const QString &source, const QString &destination, QString *errorText)
{
    const QByteArray from = QFile::encodeName(source);
    const QByteArray to = QFile::encodeName(destination);
    Fd in;
    in.fd = ::open(from.constData(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (in.fd < 0 || ::fstat(in.fd, &info) != 0) {
        *errorText = errnoText();
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *errorText = QStringLiteral("Not a regular file");
        return false;
    }
    Fd out;
    out.fd = ::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, info.st_mode & 0777);
    if (out.fd < 0) {
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
