#include "ovaextractor.h"

#include "filecopy.h"
#include "logging.h"
#include "membercopy.h"
#include "tarreader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <vector>

namespace {

// The cleaned record name climbs out of whatever it is joined to. Names starting with
// ".." are refused as they stand (even "..name"); a rooted name such as "/../x" would
// otherwise slip past that test and, once joined as text, climb out of the destination.
bool isPathEscape(const QString &recordName)
{
    const QString cleaned = QDir::cleanPath(recordName);
    if (cleaned.startsWith(QLatin1String("..")))
        return true;
    int first = 0;
    while (first < cleaned.size() && cleaned.at(first) == QLatin1Char('/'))
        ++first;
    const QString unrooted = QDir::cleanPath(cleaned.mid(first));
    return unrooted == QLatin1String("..") || unrooted.startsWith(QLatin1String("../"));
}

int extractRegularFile(mtar_t *tar, const mtar_header_t &header, const QString &outPath)
{
    QFile file(outPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        Log::critical("Failed to open QFile: '", outPath, "'");
        return OvaOutputOpenFailed;
    }
    FILE *archive = nullptr;
    quint64 offset = 0;
    QString errorText;
    const MemberCopy copy = mtar_data_location(tar, &archive, &offset) == MTAR_ESUCCESS
        ? copyMemberData(archive, offset, header.size, file, &errorText) : MemberCopy::Unsupported;
    if (copy == MemberCopy::ReadFailed) {
        Log::critical("Result calling mtar_read_data(): ret =", int(MTAR_EREADFAIL));
        return OvaReadFailed;
    }
    if (copy == MemberCopy::WriteFailed) {
        Log::critical("Got an error while writing file chunk to disk:", errorText);
        Log::critical("Result calling writeFileChunk().");
        return OvaWriteFailed;
    }
    quint64 remaining = copy == MemberCopy::Done ? 0 : header.size;
    std::vector<char> buffer(size_t(std::min<quint64>(remaining, CopyChunkSize)));
    while (remaining > 0) {
        const qint64 chunk = qint64(std::min<quint64>(remaining, CopyChunkSize));
        const int ret = mtar_read_data(tar, buffer.data(), quint64(chunk));
        if (ret != MTAR_ESUCCESS) {
            Log::critical("Result calling mtar_read_data(): ret =", ret);
            return OvaReadFailed;
        }
        if (!writeFileChunk(file, buffer.data(), chunk)) {
            Log::critical("Result calling writeFileChunk().");
            return OvaWriteFailed;
        }
        remaining -= quint64(chunk);
    }
    if (!file.flush()) {
        Log::critical("Got an error while flushing file.");
        return OvaFlushFailed;
    }
    return OvaSuccess;
}

int extractRecord(mtar_t *tar, const mtar_header_t &header, const QString &destination)
{
    const QString name = QString::fromUtf8(header.name);
    // Joined as text first, so an absolute record name lands inside the destination.
    const QString outPath = QDir::cleanPath(destination + QLatin1Char('/') + name);
    if (isPathEscape(name)) {
        Log::warning("Encountered path escape", outPath);
        return OvaPathEscape;
    }

    const QChar type = QLatin1Char(header.type);
    switch (header.type) {
    case '0':
        return extractRegularFile(tar, header, outPath);
    case '5':
        return QDir().mkpath(outPath) ? OvaSuccess : OvaDirectoryFailed;
    case '1':
    case '2':
    case '3':
    case '4':
    case '6':
        Log::warning("Skipping file '", name, "' of unsupported type", type);
        return OvaSuccess;
    default:
        Log::warning("Skipping file '", name, "' of unknown type", type);
        return OvaSuccess;
    }
}

} // namespace

bool writeFileChunk(QFile &file, const char *data, qint64 size)
{
    for (const char *const end = data + size; data != end;) {
        const qint64 n = file.write(data, end - data);
        // A write that makes no progress would spin forever; treat it as the failure it is.
        if (n <= 0) {
            Log::critical("Got an error while writing file chunk to disk:", file.errorString());
            return false;
        }
        data += n;
    }
    return true;
}

int extractOva(const QString &archivePath, const QString &destinationDirectory)
{
    const QFileInfo archive(archivePath);
    if (!archive.exists() || !archive.isFile() || !archive.isReadable()) {
        Log::critical("Tar is not accessible and readable: '", archivePath, "'.");
        return OvaArchiveNotReadable;
    }
    if (destinationDirectory.isEmpty() || !QDir().mkpath(destinationDirectory)) {
        Log::critical("Destination directory cannot be created or is not accessible: '",
                      destinationDirectory, "'.");
        return OvaDirectoryFailed;
    }

    mtar_t tar;
    const QByteArray nativePath = archivePath.toLocal8Bit();
    int ret = mtar_open(&tar, nativePath.constData(), "r");
    if (ret != MTAR_ESUCCESS) {
        Log::critical("Fail to open archive '", archivePath, "' with mtar_open(), ret =", ret);
        return OvaOpenFailed;
    }

    int result = OvaSuccess;
    mtar_header_t header;
    for (;;) {
        // Other header failures leave an empty header; the move below reports them.
        if (mtar_current_header(&tar, &header) == MTAR_ENULLRECORD)
            break;
        result = extractRecord(&tar, header, destinationDirectory);
        if (result != OvaSuccess) {
            Log::critical("Failed to process tar archive record.");
            break;
        }
        ret = mtar_next_record(&tar);
        if (ret != MTAR_ESUCCESS) {
            Log::critical("Failed to iterate to next tar archive record ret=", ret);
            result = OvaNextRecordFailed;
            break;
        }
    }

    ret = mtar_close(&tar);
    if (result == OvaSuccess && ret != MTAR_ESUCCESS) {
        Log::critical("Fail to close archive '", archivePath, "' with mtar_close() with ret =", ret);
        return OvaCloseFailed;
    }
    return result;
}
