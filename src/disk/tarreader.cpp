#include "tarreader.h"

#include <QtEndian>

#include <cstdio>
#include <cstring>
#include <numeric>
#include <optional>

namespace {

constexpr quint64 RecordSize = 512;

struct RawHeader
{
    char name[100];
    char mode[8];
    char owner[8];
    char group[8];
    char size[12];
    char mtime[12];
    char checksum[8];
    char type;
    char linkname[100];
    char padding[255];
};
static_assert(sizeof(RawHeader) == RecordSize, "a tar header is one 512-byte record");

FILE *fileOf(mtar_t *tar) { return static_cast<FILE *>(tar->stream); }

int fileRead(mtar_t *tar, void *data, quint64 size)
{
    return std::fread(data, 1, size, fileOf(tar)) == size ? MTAR_ESUCCESS : MTAR_EREADFAIL;
}

int fileWrite(mtar_t *tar, const void *data, quint64 size)
{
    return std::fwrite(data, 1, size, fileOf(tar)) == size ? MTAR_ESUCCESS : MTAR_EWRITEFAIL;
}

// A position of 2^63 or more becomes a negative offset, which the seek refuses.
int fileSeek(mtar_t *tar, quint64 pos)
{
#ifdef Q_OS_WIN
    const int res = _fseeki64(fileOf(tar), qint64(pos), SEEK_SET);
#else
    const int res = fseeko(fileOf(tar), off_t(pos), SEEK_SET);
#endif
    return res == 0 ? MTAR_ESUCCESS : MTAR_ESEEKFAIL;
}

int fileClose(mtar_t *tar)
{
    return std::fclose(fileOf(tar)) == 0 ? MTAR_ESUCCESS : MTAR_EFAILURE;
}

int streamRead(mtar_t *tar, void *data, quint64 size)
{
    const int err = tar->read(tar, data, size);
    if (err == MTAR_ESUCCESS)
        tar->pos += size;
    return err;
}

int streamSeek(mtar_t *tar, quint64 pos)
{
    const int err = tar->seek(tar, pos);
    if (err == MTAR_ESUCCESS)
        tar->pos = pos;
    return err;
}

// Octal text as tar writes it: optional leading spaces, digits, then a NUL or a space.
// Never reads past the field, which need not be terminated.
quint64 parseOctal(const char *field, size_t length)
{
    const char *const end = field + length;
    while (field != end && *field == ' ')
        ++field;
    quint64 value = 0;
    for (; field != end && *field >= '0' && *field <= '7'; ++field)
        value = (value << 3) | quint64(*field - '0');
    return value;
}

// GNU tar stores sizes of 8 GiB and more big-endian in base 256, flagged by 0x80 in the
// first byte. Negative values (0xff) and values past 2^63 cannot be a size.
std::optional<quint64> parseSize(const char (&field)[12])
{
    const auto byte = [&](int i) { return quint8(field[i]); };
    if (!(byte(0) & 0x80))
        return parseOctal(field, sizeof field);
    if (byte(0) != 0x80)
        return std::nullopt;
    for (int i = 1; i < 4; ++i) {
        if (byte(i) != 0)
            return std::nullopt;
    }
    if (byte(4) & 0x80)
        return std::nullopt;
    return qFromBigEndian<quint64>(field + 4);
}

// The checksum field counts as eight spaces.
quint64 checksumOf(const RawHeader &raw)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&raw);
    quint64 sum = std::accumulate(bytes, bytes + sizeof raw, quint64(0));
    for (char c : raw.checksum)
        sum -= quint8(c);
    return sum + ' ' * sizeof raw.checksum;
}

void copyText(char (&to)[101], const char (&from)[100])
{
    std::memcpy(to, from, sizeof from);
    to[sizeof from] = '\0';
}

int readHeader(mtar_t *tar, mtar_header_t *header)
{
    std::memset(header, 0, sizeof *header);
    tar->last_header = tar->pos;
    RawHeader raw;
    int err = streamRead(tar, &raw, sizeof raw);
    if (err != MTAR_ESUCCESS)
        return err;
    err = streamSeek(tar, tar->last_header);
    if (err != MTAR_ESUCCESS)
        return err;

    if (raw.name[0] == '\0')
        return MTAR_ENULLRECORD;
    if (parseOctal(raw.checksum, sizeof raw.checksum) != checksumOf(raw))
        return MTAR_EBADCHKSUM;
    const std::optional<quint64> size = parseSize(raw.size);
    if (!size)
        return MTAR_EFAILURE;

    header->mode = quint32(parseOctal(raw.mode, sizeof raw.mode));
    header->owner = quint32(parseOctal(raw.owner, sizeof raw.owner));
    header->group = quint32(parseOctal(raw.group, sizeof raw.group));
    header->size = *size;
    header->mtime = parseOctal(raw.mtime, sizeof raw.mtime);
    header->type = raw.type;
    copyText(header->name, raw.name);
    copyText(header->linkname, raw.linkname);
    return MTAR_ESUCCESS;
}

// The mode letters collapse to binary stdio modes; anything else is refused before it
// reaches fopen, whose handling of unknown modes differs between C runtimes.
const char *binaryMode(const char *mode)
{
    if (std::strchr(mode, 'r'))
        return "rb";
    if (std::strchr(mode, 'w'))
        return "wb";
    if (std::strchr(mode, 'a'))
        return "ab";
    return nullptr;
}

} // namespace

int mtar_open(mtar_t *tar, const char *filename, const char *mode)
{
    if (!tar)
        return MTAR_EFAILURE;
    std::memset(tar, 0, sizeof *tar);
    tar->read = fileRead;
    tar->write = fileWrite;
    tar->seek = fileSeek;
    tar->close = fileClose;

    const char *stdioMode = (filename && mode) ? binaryMode(mode) : nullptr;
    if (!stdioMode)
        return MTAR_EOPENFAIL;
    FILE *file = std::fopen(filename, stdioMode);
    if (!file)
        return MTAR_EOPENFAIL;
    tar->stream = file;

    if (stdioMode[0] == 'r') {
        mtar_header_t header;
        const int err = readHeader(tar, &header);
        if (err != MTAR_ESUCCESS) {
            mtar_close(tar);
            return err;
        }
    }
    return MTAR_ESUCCESS;
}

int mtar_close(mtar_t *tar)
{
    if (!tar || !tar->stream)
        return MTAR_EFAILURE;
    const int err = tar->close(tar);
    tar->stream = nullptr;
    return err;
}

int mtar_current_header(mtar_t *tar, mtar_header_t *header)
{
    if (!tar || !tar->stream || !header)
        return MTAR_EFAILURE;
    return readHeader(tar, header);
}

int mtar_next_record(mtar_t *tar)
{
    mtar_header_t header;
    const int err = mtar_current_header(tar, &header);
    if (err != MTAR_ESUCCESS)
        return err;
    const quint64 padded = (header.size + RecordSize - 1) / RecordSize * RecordSize;
    // No overflow: the header just read ends inside the file, below 2^63, and parseSize
    // caps sizes below 2^63. A sum of 2^63 or more fails in the seek.
    return streamSeek(tar, tar->pos + padded + RecordSize);
}

int mtar_read_data(mtar_t *tar, void *ptr, quint64 size)
{
    if (!tar || !tar->stream || (!ptr && size > 0))
        return MTAR_EFAILURE;
    if (tar->remaining_data == 0) {
        mtar_header_t header;
        int err = mtar_current_header(tar, &header);
        if (err != MTAR_ESUCCESS)
            return err;
        err = streamSeek(tar, tar->pos + RecordSize);
        if (err != MTAR_ESUCCESS)
            return err;
        tar->remaining_data = header.size;
    }
    // Reading past the record would walk into the next header.
    if (size > tar->remaining_data)
        return MTAR_EFAILURE;
    const int err = streamRead(tar, ptr, size);
    if (err != MTAR_ESUCCESS)
        return err;
    tar->remaining_data -= size;
    if (tar->remaining_data == 0)
        return streamSeek(tar, tar->last_header);
    return MTAR_ESUCCESS;
}

int mtar_data_location(mtar_t *tar, FILE **file, quint64 *offset)
{
    if (!tar || !tar->stream || !file || !offset || tar->remaining_data != 0 || tar->pos != tar->last_header)
        return MTAR_EFAILURE;
    *file = fileOf(tar);
    *offset = tar->last_header + RecordSize;
    return MTAR_ESUCCESS;
}
