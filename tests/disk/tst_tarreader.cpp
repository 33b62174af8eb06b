#include "tarreader.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>

namespace {

enum class Checksum { Unsigned, Signed, WithoutSpaces, LeadingSpaces };

// One ustar header block, checksummed the way the Checksum value says.
QByteArray header(const QByteArray &name, quint64 size, char type = '0',
                  Checksum checksum = Checksum::Unsigned)
{
    QByteArray h(512, '\0');
    std::memcpy(h.data(), name.constData(), size_t(qMin(name.size(), 100)));
    std::memcpy(h.data() + 100, "0000644", 7);
    std::memcpy(h.data() + 108, "0001750", 7);
    std::memcpy(h.data() + 116, "0000144", 7);
    std::memcpy(h.data() + 124, QByteArray::number(size, 8).rightJustified(11, '0').constData(), 11);
    std::memcpy(h.data() + 136, "14712345670", 11);
    h[156] = type;
    std::memcpy(h.data() + 157, "target", 6);
    std::memcpy(h.data() + 257, "ustar\00000", 8);

    std::memset(h.data() + 148, checksum == Checksum::WithoutSpaces ? 0 : ' ', 8);
    int sum = 0;
    for (char c : h)
        sum += checksum == Checksum::Signed ? int(c) : int(quint8(c));
    const QByteArray text = checksum == Checksum::LeadingSpaces
        ? QByteArray::number(sum, 8).rightJustified(6, ' ')
        : QByteArray::number(sum, 8).rightJustified(6, '0');
    std::memcpy(h.data() + 148, text.constData(), 6);
    h[154] = '\0';
    return h;
}

QByteArray pattern(qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 131 + 7) % 251);
    return data;
}

QByteArray padded(const QByteArray &data)
{
    return data + QByteArray(int((512 - data.size() % 512) % 512), '\0');
}

QByteArray endBlocks() { return QByteArray(1024, '\0'); }

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

} // namespace

class tst_TarReader : public QObject
{
    Q_OBJECT
private slots:
    void openModes_data();
    void openModes();
    void openResults_data();
    void openResults();
    void decodesFields();
    void sizeEncodings_data();
    void sizeEncodings();
    void readsDataInChunks_data();
    void readsDataInChunks();
    void membersOverFourGiB_data();
    void membersOverFourGiB();
    void truncatedArchiveFails_data();
    void truncatedArchiveFails();
    void closeAndBadArguments();

private:
    QTemporaryDir m_dir;
};

void tst_TarReader::openModes_data()
{
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<bool>("exists");
    QTest::addColumn<int>("expected");
    QTest::addColumn<qint64>("sizeAfterWrite");  // -1: nothing written, file as before or absent

    const qint64 archive = 512 + 1024;
    QTest::newRow("r reads") << QByteArray("r") << true << 0 << qint64(-1);
    QTest::newRow("r missing file") << QByteArray("r") << false << int(MTAR_EOPENFAIL) << qint64(-1);
    QTest::newRow("r wins over w") << QByteArray("rw") << true << 0 << qint64(-1);
    QTest::newRow("w truncates") << QByteArray("w") << true << 0 << qint64(3);
    QTest::newRow("w creates") << QByteArray("w") << false << 0 << qint64(3);
    QTest::newRow("w wins over a") << QByteArray("wa") << true << 0 << qint64(3);
    QTest::newRow("a appends") << QByteArray("a") << true << 0 << archive + 3;
    QTest::newRow("a+ is a") << QByteArray("a+") << true << 0 << archive + 3;
    QTest::newRow("no mode letter") << QByteArray("x") << true << int(MTAR_EOPENFAIL) << qint64(-1);
    QTest::newRow("empty mode") << QByteArray("") << true << int(MTAR_EOPENFAIL) << qint64(-1);
}

void tst_TarReader::openModes()
{
    QFETCH(QByteArray, mode);
    QFETCH(bool, exists);
    QFETCH(int, expected);
    QFETCH(qint64, sizeAfterWrite);

    const QString path = m_dir.filePath(QStringLiteral("modes.tar"));
    QFile::remove(path);
    const QByteArray original = header("a.txt", 0) + endBlocks();
    if (exists)
        QVERIFY(writeFile(path, original));

    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), mode.constData()), expected);
    if (expected == MTAR_ESUCCESS) {
        if (sizeAfterWrite >= 0)
            QCOMPARE(tar.write(&tar, "xyz", 3), int(MTAR_ESUCCESS));
        QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
    }
    if (sizeAfterWrite >= 0)
        QCOMPARE(QFileInfo(path).size(), sizeAfterWrite);
    else if (exists)
        QCOMPARE(QFileInfo(path).size(), qint64(original.size()));
    else
        QVERIFY(!QFile::exists(path));
}

void tst_TarReader::openResults_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("expected");

    const QByteArray utf8Name = "\xc3\xa9t\xc3\xa9.vmdk";
    QByteArray badPadding = header("a", 0);
    badPadding[400] = 'x';
    QByteArray badChecksumDigit = header("a", 0);
    badChecksumDigit[150] = char(badChecksumDigit[150] == '7' ? '6' : badChecksumDigit[150] + 1);
    QByteArray checksumEndsInSpace = header("a", 0);
    checksumEndsInSpace[154] = ' ';

    QTest::newRow("valid") << header("a", 0) + endBlocks() << 0;
    QTest::newRow("unsigned sum of high bytes") << header(utf8Name, 0) + endBlocks() << 0;
    QTest::newRow("signed sum of high bytes")
        << header(utf8Name, 0, '0', Checksum::Signed) + endBlocks() << int(MTAR_EBADCHKSUM);
    QTest::newRow("checksum field not counted as spaces")
        << header("a", 0, '0', Checksum::WithoutSpaces) + endBlocks() << int(MTAR_EBADCHKSUM);
    QTest::newRow("checksum with leading spaces")
        << header("a", 0, '0', Checksum::LeadingSpaces) + endBlocks() << 0;
    QTest::newRow("checksum ending in a space") << checksumEndsInSpace + endBlocks() << 0;
    QTest::newRow("padding byte changed") << badPadding + endBlocks() << int(MTAR_EBADCHKSUM);
    QTest::newRow("checksum digit changed") << badChecksumDigit + endBlocks() << int(MTAR_EBADCHKSUM);
    QTest::newRow("only end blocks") << endBlocks() << int(MTAR_ENULLRECORD);
    QTest::newRow("empty name ends the archive") << header("", 0) + endBlocks() << int(MTAR_ENULLRECORD);
    QTest::newRow("empty file") << QByteArray() << int(MTAR_EREADFAIL);
    QTest::newRow("partial header") << header("a", 0).left(300) << int(MTAR_EREADFAIL);
}

void tst_TarReader::openResults()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, expected);

    const QString path = m_dir.filePath(QStringLiteral("open.tar"));
    QVERIFY(writeFile(path, bytes));
    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), expected);
    if (expected == MTAR_ESUCCESS)
        QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
    else
        QVERIFY(!tar.stream);  // closed by the failed open
}

void tst_TarReader::decodesFields()
{
    const QByteArray longName(100, 'n');  // fills the field: no terminating NUL
    const QString path = m_dir.filePath(QStringLiteral("fields.tar"));
    QVERIFY(writeFile(path, header(longName, 5, '2') + padded("hello") + header("next", 0, '5') + endBlocks()));

    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), int(MTAR_ESUCCESS));
    mtar_header_t h;
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ESUCCESS));
    QCOMPARE(QByteArray(h.name), longName);
    QCOMPARE(QByteArray(h.linkname), QByteArray("target"));
    QCOMPARE(h.mode, 0644u);
    QCOMPARE(h.owner, 01750u);
    QCOMPARE(h.group, 0144u);
    QCOMPARE(h.size, quint64(5));
    QCOMPARE(h.mtime, quint64(014712345670));
    QCOMPARE(h.type, '2');
    QCOMPARE(tar.last_header, quint64(0));

    QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
    QCOMPARE(tar.pos, quint64(1024));
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ESUCCESS));
    QCOMPARE(QByteArray(h.name), QByteArray("next"));
    QCOMPARE(h.type, '5');
    QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ENULLRECORD));
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
}

void tst_TarReader::sizeEncodings_data()
{
    QTest::addColumn<QByteArray>("sizeField");  // the 12 bytes at offset 124
    QTest::addColumn<int>("expected");
    QTest::addColumn<quint64>("size");

    const auto base256 = [](quint8 first, quint64 value, quint8 filler = 0) {
        QByteArray f(12, char(filler));
        f[0] = char(first);
        for (int i = 11; i >= 4; --i, value >>= 8)
            f[i] = char(value & 0xff);
        return f;
    };
    QTest::newRow("octal zero") << QByteArray("00000000000", 12) << 0 << quint64(0);
    QTest::newRow("octal largest") << QByteArray("77777777777", 12) << 0 << quint64(077777777777);
    QTest::newRow("octal with spaces") << QByteArray("     1750 \0\0", 12) << 0 << quint64(01750);
    QTest::newRow("octal stops at a non-digit") << QByteArray("0000017x9999", 12) << 0 << quint64(017);
    QTest::newRow("base 256, 9 GiB") << base256(0x80, 9ull << 30) << 0 << (9ull << 30);
    QTest::newRow("base 256, 2^63 - 1") << base256(0x80, ~0ull >> 1) << 0 << (~0ull >> 1);
    QTest::newRow("base 256 past 2^63") << base256(0x80, 1ull << 63) << int(MTAR_EFAILURE) << quint64(0);
    QTest::newRow("base 256 past 64 bits") << base256(0x80, 1, 0x01) << int(MTAR_EFAILURE) << quint64(0);
    QTest::newRow("base 256 negative") << base256(0xff, ~0ull, 0xff) << int(MTAR_EFAILURE) << quint64(0);
}

void tst_TarReader::sizeEncodings()
{
    QFETCH(QByteArray, sizeField);
    QFETCH(int, expected);
    QFETCH(quint64, size);

    // A leading record keeps the archive openable whatever the size field holds.
    QByteArray second = header("big", 0);
    std::memcpy(second.data() + 124, sizeField.constData(), 12);
    std::memset(second.data() + 148, ' ', 8);
    int sum = 0;
    for (char c : second)
        sum += quint8(c);
    std::memcpy(second.data() + 148, QByteArray::number(sum, 8).rightJustified(6, '0').constData(), 6);
    second[154] = '\0';

    const QString path = m_dir.filePath(QStringLiteral("sizes.tar"));
    QVERIFY(writeFile(path, header("first", 0) + second + endBlocks()));
    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), int(MTAR_ESUCCESS));
    QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
    mtar_header_t h;
    QCOMPARE(mtar_current_header(&tar, &h), expected);
    QCOMPARE(h.size, size);
    if (expected != MTAR_ESUCCESS)
        QCOMPARE(mtar_next_record(&tar), expected);
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
}

void tst_TarReader::readsDataInChunks_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("chunk");
    QTest::newRow("4096 in one chunk") << 4096 << 4096;
    QTest::newRow("4097 in 4096 and 1") << 4097 << 4096;
    QTest::newRow("1000 byte by byte") << 1000 << 1;
    QTest::newRow("512 in one chunk") << 512 << 512;
}

void tst_TarReader::readsDataInChunks()
{
    QFETCH(int, size);
    QFETCH(int, chunk);

    const QByteArray data = pattern(size);
    const QString path = m_dir.filePath(QStringLiteral("data.tar"));
    QVERIFY(writeFile(path, header("data", quint64(size)) + padded(data) + header("after", 0) + endBlocks()));

    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), int(MTAR_ESUCCESS));
    QByteArray read;
    QByteArray buffer(chunk, '\0');
    while (read.size() < size) {
        const int n = qMin(chunk, size - read.size());
        QCOMPARE(mtar_read_data(&tar, buffer.data(), quint64(n)), int(MTAR_ESUCCESS));
        read += buffer.left(n);
        QCOMPARE(tar.remaining_data, quint64(size - read.size()));
    }
    QCOMPARE(read, data);
    QCOMPARE(tar.pos, quint64(0));  // back at the record's header

    mtar_header_t h;
    QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ESUCCESS));
    QCOMPARE(QByteArray(h.name), QByteArray("after"));
    // Reading past a record's end would read the next header as data.
    QCOMPARE(mtar_read_data(&tar, buffer.data(), 1), int(MTAR_EFAILURE));
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
}

void tst_TarReader::membersOverFourGiB_data()
{
    QTest::addColumn<quint64>("size");
    QTest::addColumn<bool>("base256");
    QTest::newRow("5 GiB octal") << ((5ull << 30) + 3) << false;
    QTest::newRow("9 GiB base 256") << ((9ull << 30) + 700) << true;
}

void tst_TarReader::membersOverFourGiB()
{
    QFETCH(quint64, size);
    QFETCH(bool, base256);

    // A sparse file: the member's data is a hole, so the test costs no disk space.
    QByteArray big = header("disk.vmdk", base256 ? 0 : size);
    if (base256) {
        QByteArray field(12, '\0');
        field[0] = char(0x80);
        for (int i = 11, v = 0; i >= 4; --i, ++v)
            field[i] = char((size >> (8 * v)) & 0xff);
        std::memcpy(big.data() + 124, field.constData(), 12);
        std::memset(big.data() + 148, ' ', 8);
        int sum = 0;
        for (char c : big)
            sum += quint8(c);
        std::memcpy(big.data() + 148, QByteArray::number(sum, 8).rightJustified(6, '0').constData(), 6);
        big[154] = '\0';
    }
    const quint64 next = 512 + (size + 511) / 512 * 512;
    const QString path = m_dir.filePath(QStringLiteral("big.tar"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QVERIFY(file.write(big) == 512);
    QVERIFY(file.seek(qint64(next)));
    QVERIFY(file.write(header("system.vmdk", 0) + endBlocks()) == 1536);
    file.close();

    const QByteArray nativePath = QFile::encodeName(path);
    mtar_t tar;
    mtar_header_t h;
    QCOMPARE(mtar_open(&tar, nativePath.constData(), "r"), int(MTAR_ESUCCESS));
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ESUCCESS));
    QCOMPARE(h.size, size);
    QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
    QCOMPARE(tar.pos, next);
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_ESUCCESS));
    QCOMPARE(QByteArray(h.name), QByteArray("system.vmdk"));
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));

    QCOMPARE(mtar_open(&tar, nativePath.constData(), "r"), int(MTAR_ESUCCESS));
    char buffer[4096];
    QCOMPARE(mtar_read_data(&tar, buffer, sizeof buffer), int(MTAR_ESUCCESS));
    QCOMPARE(tar.remaining_data, size - sizeof buffer);
    QCOMPARE(tar.pos, quint64(512 + sizeof buffer));
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
    QVERIFY(QFile::remove(path));
}

void tst_TarReader::truncatedArchiveFails_data()
{
    QTest::addColumn<int>("keep");        // bytes kept of a 10000-byte member's archive
    QTest::addColumn<int>("readResult");  // of reading the whole member in 4096-byte chunks
    QTest::addColumn<int>("nextResult");  // of moving past the member (first read, then next)
    QTest::newRow("cut inside the data") << 512 + 5000 << int(MTAR_EREADFAIL) << int(MTAR_ESUCCESS);
    QTest::newRow("cut after the data") << 512 + 10240 << int(MTAR_ESUCCESS) << int(MTAR_EREADFAIL);
    QTest::newRow("cut inside the next header") << 512 + 10240 + 100 << int(MTAR_ESUCCESS) << int(MTAR_EREADFAIL);
}

void tst_TarReader::truncatedArchiveFails()
{
    QFETCH(int, keep);
    QFETCH(int, readResult);
    QFETCH(int, nextResult);

    const QByteArray archive = header("data", 10000) + padded(pattern(10000)) + header("b", 0) + endBlocks();
    const QString path = m_dir.filePath(QStringLiteral("cut.tar"));
    QVERIFY(writeFile(path, archive.left(keep)));

    mtar_t tar;
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), int(MTAR_ESUCCESS));
    char buffer[4096];
    int ret = MTAR_ESUCCESS;
    for (int left = 10000; left > 0 && ret == MTAR_ESUCCESS; left -= 4096)
        ret = mtar_read_data(&tar, buffer, quint64(qMin(left, 4096)));
    QCOMPARE(ret, readResult);
    if (ret == MTAR_ESUCCESS) {
        QCOMPARE(mtar_next_record(&tar), int(MTAR_ESUCCESS));
        QCOMPARE(mtar_next_record(&tar), nextResult);
    }
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
}

void tst_TarReader::closeAndBadArguments()
{
    const QString path = m_dir.filePath(QStringLiteral("close.tar"));
    QVERIFY(writeFile(path, header("a", 0) + endBlocks()));
    mtar_t tar;
    mtar_header_t h;
    QCOMPARE(mtar_open(nullptr, "x", "r"), int(MTAR_EFAILURE));
    QCOMPARE(mtar_open(&tar, nullptr, "r"), int(MTAR_EOPENFAIL));
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), nullptr), int(MTAR_EOPENFAIL));
    QCOMPARE(mtar_open(&tar, QFile::encodeName(path).constData(), "r"), int(MTAR_ESUCCESS));
    QCOMPARE(mtar_current_header(&tar, nullptr), int(MTAR_EFAILURE));
    QCOMPARE(mtar_close(&tar), int(MTAR_ESUCCESS));
    // Once closed, every operation fails instead of touching a freed stream.
    QCOMPARE(mtar_close(&tar), int(MTAR_EFAILURE));
    QCOMPARE(mtar_current_header(&tar, &h), int(MTAR_EFAILURE));
    QCOMPARE(mtar_next_record(&tar), int(MTAR_EFAILURE));
    char byte;
    QCOMPARE(mtar_read_data(&tar, &byte, 1), int(MTAR_EFAILURE));
}

QTEST_GUILESS_MAIN(tst_TarReader)
#include "tst_tarreader.moc"
