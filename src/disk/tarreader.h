#pragma once

#include <QtGlobal>

#include <cstdio>

// A small sequential tar reader in the style of microtar. It walks an archive record by
// record through the C stdio stream functions and never holds a record's data in memory.
// Sizes and positions are 64-bit so members of 4 GiB and more work.

enum {
    MTAR_ESUCCESS = 0,
    MTAR_EFAILURE = -1,
    MTAR_EOPENFAIL = -2,
    MTAR_EREADFAIL = -3,
    MTAR_EWRITEFAIL = -4,
    MTAR_ESEEKFAIL = -5,
    MTAR_EBADCHKSUM = -6,
    MTAR_ENULLRECORD = -7
};

struct mtar_header_t
{
    quint32 mode;
    quint32 owner;
    quint32 group;
    quint64 size;
    quint64 mtime;
    char type;
    char name[101];      // always NUL-terminated, even when the record uses all 100 bytes
    char linkname[101];
};

struct mtar_t
{
    // Stream operations, bound at opening.
    int (*read)(mtar_t *tar, void *data, quint64 size);
    int (*write)(mtar_t *tar, const void *data, quint64 size);
    int (*seek)(mtar_t *tar, quint64 pos);
    int (*close)(mtar_t *tar);
    void *stream;
    quint64 pos;             // stream position
    quint64 remaining_data;  // bytes of the current record still to read; 0 before the first read
    quint64 last_header;     // position of the current record's header
};

int mtar_open(mtar_t *tar, const char *filename, const char *mode);
int mtar_close(mtar_t *tar);
int mtar_current_header(mtar_t *tar, mtar_header_t *header);
int mtar_next_record(mtar_t *tar);
int mtar_read_data(mtar_t *tar, void *ptr, quint64 size);

// Where the current record's data lies in the archive file, for a copy that bypasses the
// stream: the open file and the offset of the first data byte. Only before any of the
// record's data was read; the reader stays at the record's header, ready for
// mtar_next_record.
int mtar_data_location(mtar_t *tar, FILE **file, quint64 *offset);
