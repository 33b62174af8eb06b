#include "casetable.h"
#include "ovaextractor.h"
#include "qemuimgargs.h"
#include "tarreader.h"

#include <QTemporaryDir>

namespace {

// Differs per member, so a file written under another member's name shows.
QByteArray content(int member, qint64 size)
{
    QByteArray data(int(size), Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 131 + member * 7 + 1) % 251);
    return data;
}

// One header block as the member describes it: "sum" spells the checksum, "flip" changes bytes.
QByteArray header(const QJsonObject &m, qint64 size)
{
    QByteArray h(512, '\0');
    const auto put = [&h](int at, const QByteArray &bytes) { h.replace(at, bytes.size(), bytes); };
    QByteArray sizeField = m["sizeField"].toString(QString::number(size, 8).rightJustified(11, '0')).toLatin1();
    for (int i = 0; size >= (8LL << 30) && i < 12; ++i)  // base 256 from 8 GiB up, as GNU tar writes
        sizeField[i] = char(i == 0 ? 0x80 : i < 4 ? 0 : (size >> (88 - 8 * i)) & 0xff);
    put(0, m["name"].toString().toUtf8().left(100));
    put(100, QByteArray("0000644\0" "0001750\0" "0000144", 23));
    put(124, sizeField);
    put(136, "14712345670");
    put(156, (m["type"].toString("0").toLatin1() + '\0').left(1));
    put(157, m["link"].toString().toUtf8());
    put(257, QByteArray("ustar\0" "00", 8));
    const QString sum = m["sum"].toString();
    put(148, QByteArray(8, sum == "zeroed" ? '\0' : ' '));
    int total = 0;
    for (char c : h)
        total += sum == "signed" ? int(c) : int(quint8(c));
    put(148, QByteArray::number(total, 8).rightJustified(6, sum == "spaces" ? ' ' : '0') + (sum == "trailing" ? ' ' : '\0'));
    for (const QJsonValue &offset : m["flip"].toArray())
        h[offset.toInt()] = char(h[offset.toInt()] ^ 1);
    return h;
}

bool buildArchive(const QJsonArray &members, int cut, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < members.size(); ++i) {
        const qint64 size = qint64(members[i]["size"].toDouble());
        file.write(header(members[i].toObject(), size));
        if (size > (4 << 20))  // a hole: big members cost no disk space
            file.seek(file.pos() + (size + 511) / 512 * 512);
        else
            file.write(content(i, size) + QByteArray(int(-size & 511), '\0'));
    }
    return file.write(QByteArray(1024, '\0')) == 1024 && file.resize(cut < 0 ? file.size() : cut);
}

QMap<QString, QByteArray> treeOf(const QString &root)
{
    QMap<QString, QByteArray> tree;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        tree.insert(QDir(root).relativeFilePath(path), it.fileInfo().isSymLink() ? "link" : it.fileInfo().isDir() ? "dir" : fileContents(path));
    }
    return tree;
}

} // namespace

class tst_Disk : public QObject
{
    Q_OBJECT
private slots:
    void extract_data() { addCaseRows("disk/ova.json"); }
    void extract();
    void closedReader();
    void qemuImgArguments_data();
    void qemuImgArguments();
};

void tst_Disk::extract()
{
    QV_FETCH_CASE;
    QTemporaryDir work, parent;  // the archive apart, so that the tree of parent is all the output
    const QString archive = c.contains("archive") ? parent.filePath(c["archive"].toString()) : work.filePath("image.ova");
    const QString dest = c["dest"].isNull() ? QString() : parent.filePath(c["dest"].toString("dest"));
    const QJsonArray members = c["members"].toArray();
    QVERIFY(buildArchive(members, c["cut"].toInt(-1), work.filePath("image.ova")));
    const QJsonObject before = c["before"].toObject();
    for (auto it = before.begin(); it != before.end(); ++it) {
        const QString text = it.value().toString(), path = parent.filePath(it.key());
        QVERIFY(text.startsWith("->") ? QDir().mkpath(QFileInfo(path).path()) && QFile::link(text.mid(2), path) : writeFile(path, text.toUtf8()));
    }
    QMap<QString, QByteArray> tree;  // path: "dir", "link", file contents, or [member, bytes of it]
    const QJsonObject expectedTree = c["tree"].toObject();
    for (auto it = expectedTree.begin(); it != expectedTree.end(); ++it) {
        const int member = it.value()[0].toInt();
        tree[it.key()] = it.value().isString() ? it.value().toString().toUtf8()
                                               : content(member, qint64(members[member]["size"].toDouble())).left(it.value()[1].toInt());
    }

    LogCapture log;
    QCOMPARE(withFileSizeLimit(c["fileSizeLimit"].toInt(-1), [&] { return extractOva(archive, dest); }), c["result"].toInt());
    QV_COMPARE_JSON(logLines(log), expand(c["log"], {{"{archive}", archive}, {"{dest}", dest}, {"{parent}", parent.path()}}).toArray());
    QCOMPARE(treeOf(parent.path()), tree);
}

void tst_Disk::closedReader()
{
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath("a.tar"));
    QVERIFY(buildArchive({QJsonObject{{"name", "a"}, {"size", 5}}, QJsonObject{{"name", "b"}, {"size", 5}}}, -1, path));
    mtar_t tar;
    mtar_header_t h;
    char buffer[8];
    FILE *file = nullptr;
    quint64 offset = 0;
    using Codes = QList<int>;  // numbers, as the callers log them
    // A reader that did not open, like a closed one below, fails every operation.
    QCOMPARE((Codes{mtar_open(&tar, path, "x"), mtar_open(&tar, path, nullptr), mtar_open(&tar, nullptr, "r"), mtar_data_location(&tar, &file, &offset),
                    mtar_open(&tar, path, "r")}), (Codes{-2, -2, -2, -1, 0}));
    QCOMPARE(mtar_current_header(&tar, nullptr), -1);
    // The data's place is known at a header just read, and only there.
    QCOMPARE((Codes{mtar_data_location(&tar, nullptr, &offset), mtar_data_location(&tar, &file, nullptr), mtar_data_location(&tar, &file, &offset)}), (Codes{-1, -1, 0}));
    // No buffer is fine only for nothing at all.
    QCOMPARE((Codes{mtar_read_data(&tar, nullptr, 1), mtar_read_data(&tar, nullptr, 0), mtar_read_data(&tar, buffer, 2), mtar_data_location(&tar, &file, &offset)}), (Codes{-1, 0, 0, -1}));
    QCOMPARE(mtar_read_data(&tar, buffer, 4), -1);  // past the record, into the next header
    // The rest of the record brings the reader back to its header, ready for the next one.
    QCOMPARE((Codes{mtar_read_data(&tar, buffer + 2, 3), mtar_next_record(&tar), mtar_data_location(&tar, &file, &offset), mtar_current_header(&tar, &h),
                    mtar_data_location(&tar, &file, &offset), mtar_read_data(&tar, buffer + 5, 1)}), (Codes{0, 0, -1, 0, 0, 0}));
    QCOMPARE(QByteArray(buffer, 6) + QByteArray(h.name) + QByteArray::number(offset), content(0, 5) + content(1, 1) + "b1536");
    QCOMPARE(mtar_close(&tar), 0);
    // Once closed, even in the middle of a record, every operation fails instead of touching a freed stream.
    QCOMPARE((Codes{mtar_close(&tar), mtar_current_header(&tar, &h), mtar_next_record(&tar), mtar_read_data(&tar, buffer, 1), mtar_data_location(&tar, &file, &offset)}), (Codes{-1, -1, -1, -1, -1}));
    // Writes go through the stream operation bound at opening: "w" starts the file anew, "a" appends.
    for (const char *mode : {"w", "a"})
        QCOMPARE((Codes{mtar_open(&tar, path, mode), tar.write(&tar, "tar", 3), mtar_close(&tar)}), (Codes{0, 0, 0}));
    QCOMPARE(fileContents(path), QByteArray("tartar"));
    const QByteArray block(8192, 't');  // more than the stream buffers, so the write itself fails
    QCOMPARE((Codes{mtar_open(&tar, "/dev/full", "w"), tar.write(&tar, block.constData(), quint64(block.size())), mtar_close(&tar)}), (Codes{0, -4, 0}));
}

void tst_Disk::qemuImgArguments_data()
{
    using namespace QemuImgArgs;
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("overlay") << createOverlay("/i/s.qcow2", "/d/s.qcow2") << QStringList{"create", "-f", "qcow2", "-b", "/i/s.qcow2", "-F", "qcow2", "/d/s.qcow2"};
    QTest::newRow("disk") << createDisk("/d/sd.qcow2", 512) << QStringList{"create", "-f", "qcow2", "/d/sd.qcow2", "512M"};
    QTest::newRow("convert") << convertToQcow2("/i/a b.vmdk", "/i/a.qcow2") << QStringList{"convert", "-f", "vmdk", "-O", "qcow2", "/i/a b.vmdk", "/i/a.qcow2"};
    QTest::newRow("vmdk info") << vmdkInfo("/i/a b.vmdk") << QStringList{"info", "--output=json", "-f", "vmdk", "/i/a b.vmdk"};
    QTest::newRow("list snapshots") << listSnapshots("/d/s.qcow2") << QStringList{"snapshot", "-l", "/d/s.qcow2"};
    QTest::newRow("delete snapshot") << deleteSnapshot("snap 1", "/d/s.qcow2") << QStringList{"snapshot", "-d", "snap 1", "/d/s.qcow2"};
    QTest::newRow("resize") << resize("/d/sd.qcow2", 8192) << QStringList{"resize", "/d/sd.qcow2", "8192M"};
}

void tst_Disk::qemuImgArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, expected);
    QCOMPARE(arguments, expected);
}

QTEST_GUILESS_MAIN(tst_Disk)
#include "tst_disk.moc"
