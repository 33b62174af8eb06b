#include "logcapture.h"
#include "ovaextractor.h"
#include "testenv.h"

#include <QDirIterator>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

struct Member
{
    char type;
    QString name;
    int size = 0;
    QString link;
};
using Members = QList<Member>;
using Tree = QMap<QString, QByteArray>;  // relative path -> content, "<dir>" or "<link>"

enum Tool { GnuUstar, GnuGnu, Python };
enum Damage { Intact, BadChecksum, CutInData, CutAfterData };

// Each member's content differs, so a file written under the wrong name is caught.
QByteArray content(const QString &name, int size)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 131 + name.size() * 7 + 1) % 251);
    return data;
}

const char PythonWriter[] = R"(
import io, sys, tarfile
fmt = tarfile.GNU_FORMAT if sys.argv[2] == 'gnu' else tarfile.USTAR_FORMAT
with tarfile.open(sys.argv[1], 'w', format=fmt) as tf:
    for entry in sys.argv[3:]:
        type_hex, name, size, link = entry.split('|')
        size = int(size)
        info = tarfile.TarInfo(name)
        info.type = bytes.fromhex(type_hex)
        info.size = size
        info.linkname = link
        data = bytes(((i * 131 + len(name) * 7 + 1) % 251) for i in range(size))
        tf.addfile(info, io.BytesIO(data))
)";

Tree treeOf(const QString &root)
{
    Tree tree;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        QByteArray value = "<dir>";
        if (info.isSymLink()) {
            value = "<link>";
        } else if (!info.isDir()) {
            QFile f(path);
            value = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<unreadable>");
        }
        tree.insert(QDir(root).relativeFilePath(path), value);
    }
    return tree;
}

// Everything under parent except the destination's own subtree.
Tree outsideOf(const QString &parent, const QString &destName)
{
    Tree tree = treeOf(parent);
    for (auto it = tree.begin(); it != tree.end();) {
        if (it.key() == destName || it.key().startsWith(destName + QLatin1Char('/')))
            it = tree.erase(it);
        else
            ++it;
    }
    return tree;
}

QStringList problemLines(const LogCapture &log)
{
    return log.lines(QtWarningMsg) + log.lines(QtCriticalMsg);
}

bool run(const QString &program, const QStringList &args, QString *error)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0) {
        process.kill();
        process.waitForFinished(5000);
        *error = program + QLatin1String(" failed: ") + QString::fromLocal8Bit(process.readAllStandardError());
        return false;
    }
    return true;
}

} // namespace

Q_DECLARE_METATYPE(Member)
Q_DECLARE_METATYPE(Members)

class tst_OvaExtractor : public QObject
{
    Q_OBJECT
private slots:
    void extracts_data();
    void extracts();
    void refusesUnusablePaths_data();
    void refusesUnusablePaths();
    void reportsOutputFailures_data();
    void reportsOutputFailures();
    void writeFileChunkWritesEverything_data();
    void writeFileChunkWritesEverything();

private:
    bool buildArchive(Tool tool, const Members &members, const QString &archive, QString *error);
};

bool tst_OvaExtractor::buildArchive(Tool tool, const Members &members, const QString &archive,
                                    QString *error)
{
    if (tool == Python) {
        QStringList args{QStringLiteral("-c"), QString::fromLatin1(PythonWriter), archive,
                         QStringLiteral("ustar")};
        for (const Member &m : members) {
            args << QStringLiteral("%1|%2|%3|%4")
                        .arg(QString::fromLatin1(QByteArray(1, m.type).toHex()), m.name)
                        .arg(m.size)
                        .arg(m.link);
        }
        return run(QStringLiteral("python3"), args, error);
    }

    // GNU tar archives what is on disk, in the order given.
    QTemporaryDir source;
    QStringList args{tool == GnuUstar ? QStringLiteral("--format=ustar") : QStringLiteral("--format=gnu"),
                     QStringLiteral("-cf"), archive, QStringLiteral("-C"), source.path(),
                     QStringLiteral("--no-recursion")};
    if (members.isEmpty())
        args << QStringLiteral("-T") << QStringLiteral("/dev/null");
    for (const Member &m : members) {
        const QString path = source.filePath(m.name);
        bool made = false;
        if (m.type == '5') {
            made = QDir().mkpath(path);
        } else if (m.type == '2') {
            made = QFile::link(m.link, path);
        } else {
            QFile f(path);
            made = f.open(QIODevice::WriteOnly) && f.write(content(m.name, m.size)) == m.size;
        }
        if (!made) {
            *error = QLatin1String("cannot make ") + path;
            return false;
        }
        args << m.name;
    }
    return run(QStringLiteral("tar"), args, error);
}

void tst_OvaExtractor::extracts_data()
{
    QTest::addColumn<int>("tool");
    QTest::addColumn<Members>("members");
    QTest::addColumn<int>("damage");
    QTest::addColumn<int>("result");
    QTest::addColumn<Tree>("tree");
    QTest::addColumn<QStringList>("lines");  // every warning and critical line, in order

    const auto file = [](const QString &name, int size) { return Member{'0', name, size, {}}; };
    const auto dir = [](const QString &name) { return Member{'5', name, 0, {}}; };
    const auto other = [](char type, const QString &name, int size = 0, const QString &link = {}) {
        return Member{type, name, size, link};
    };
    const QString notProcessed = QStringLiteral("Failed to process tar archive record.");
    const QString unknownNoType = QStringLiteral("Skipping file '  ' of unknown type ") + QChar(0);
    const QString longName = QString(120, QLatin1Char('n'));

    for (int tool : {GnuUstar, GnuGnu}) {
        const char *format = tool == GnuUstar ? "ustar" : "gnu";
        QTest::addRow("%s: files of 0, 4096, 4097 bytes", format)
            << tool
            << Members{dir("disks"), file("disks/zero", 0), file("disks/one-chunk", 4096),
                       file("disks/two-chunks", 4097), file("box.ovf", 300)}
            << int(Intact) << 0
            << Tree{{"disks", "<dir>"}, {"disks/zero", ""}, {"disks/one-chunk", content("disks/one-chunk", 4096)},
                    {"disks/two-chunks", content("disks/two-chunks", 4097)}, {"box.ovf", content("box.ovf", 300)}}
            << QStringList();
        QTest::addRow("%s: symbolic link skipped", format)
            << tool << Members{file("a", 10), other('2', "link", 0, "a"), file("b", 20)} << int(Intact) << 0
            << Tree{{"a", content("a", 10)}, {"b", content("b", 20)}}
            << QStringList{"Skipping file ' link ' of unsupported type 2"};
        QTest::addRow("%s: only the end blocks", format)
            << tool << Members{} << int(Intact) << 2 << Tree{}
            << QStringList{"Fail to open archive ' {archive} ' with mtar_open(), ret = -7"};
        QTest::addRow("%s: first checksum corrupted", format)
            << tool << Members{file("a", 10)} << int(BadChecksum) << 2 << Tree{}
            << QStringList{"Fail to open archive ' {archive} ' with mtar_open(), ret = -6"};
        // The first chunk is on disk before the read of the second fails, and stays.
        QTest::addRow("%s: cut inside the data", format)
            << tool << Members{file("big", 10000), file("after", 10)} << int(CutInData) << 3
            << Tree{{"big", content("big", 10000).left(4096)}}
            << QStringList{"Result calling mtar_read_data(): ret = -3", notProcessed};
        // The missing end leaves an unreadable, hence empty, header: skipped, then the move fails.
        QTest::addRow("%s: cut after the data", format)
            << tool << Members{file("big", 10000)} << int(CutAfterData) << 4
            << Tree{{"big", content("big", 10000)}}
            << QStringList{unknownNoType, "Failed to iterate to next tar archive record ret= -3"};
    }
    QTest::newRow("gnu: long name record skipped, name cut to 100 bytes")
        << int(GnuGnu) << Members{file(longName, 50)} << int(Intact) << 0
        << Tree{{longName.left(100), content(longName, 50)}}
        << QStringList{"Skipping file ' ././@LongLink ' of unknown type L"};

    const Members escapeAround = {file("ok", 5), file("{escape}", 5), file("after", 5)};
    const struct { const char *name; const char *outPath; } escapes[] = {
        {"../evil", "{parent}/evil"},
        {"a/../../evil", "{parent}/evil"},
        {"/../evil", "{parent}/evil"},
        {"./../evil", "{parent}/evil"},
        {"..hidden", "{dest}/..hidden"},  // the test is a text prefix, not a path segment
    };
    for (const auto &e : escapes) {
        Members members = escapeAround;
        members[1].name = QString::fromLatin1(e.name);
        QTest::addRow("escape %s", e.name)
            << int(Python) << members << int(Intact) << 8 << Tree{{"ok", content("ok", 5)}}
            << QStringList{QStringLiteral("Encountered path escape %1").arg(QLatin1String(e.outPath)), notProcessed};
    }
    QTest::newRow("absolute name lands inside")
        << int(Python) << Members{dir("/abs"), file("/abs/evil", 7), file("//twice", 3)} << int(Intact) << 0
        << Tree{{"abs", "<dir>"}, {"abs/evil", content("/abs/evil", 7)}, {"twice", content("//twice", 3)}}
        << QStringList();
    QTest::newRow("a/../b written as b")
        << int(Python) << Members{file("a/../b", 9)} << int(Intact) << 0
        << Tree{{"b", content("a/../b", 9)}} << QStringList();
    QTest::newRow("unsupported types skipped")
        << int(Python)
        << Members{file("ok", 5), other('1', "hard", 0, "ok"), other('2', "soft", 0, "ok"), other('3', "chr"),
                   other('4', "blk"), other('6', "fifo"), file("last", 6)}
        << int(Intact) << 0 << Tree{{"ok", content("ok", 5)}, {"last", content("last", 6)}}
        << QStringList{"Skipping file ' hard ' of unsupported type 1", "Skipping file ' soft ' of unsupported type 2",
                       "Skipping file ' chr ' of unsupported type 3", "Skipping file ' blk ' of unsupported type 4",
                       "Skipping file ' fifo ' of unsupported type 6"};
    // Unknown records are stepped over by their size, data included.
    QTest::newRow("unknown types skipped")
        << int(Python)
        << Members{other('\0', "nul", 700), other('7', "contiguous", 1500), other('Z', "zed"), file("last", 6)}
        << int(Intact) << 0 << Tree{{"last", content("last", 6)}}
        << QStringList{QStringLiteral("Skipping file ' nul ' of unknown type ") + QChar(0),
                       "Skipping file ' contiguous ' of unknown type 7", "Skipping file ' zed ' of unknown type Z"};
    QTest::newRow("file in a missing directory")
        << int(Python) << Members{file("missing/f", 5)} << int(Intact) << 6 << Tree{}
        << QStringList{"Failed to open QFile: ' {dest}/missing/f '", notProcessed};
    QTest::newRow("file over a directory")
        << int(Python) << Members{dir("d"), file("d", 5)} << int(Intact) << 6 << Tree{{"d", "<dir>"}}
        << QStringList{"Failed to open QFile: ' {dest}/d '", notProcessed};
    QTest::newRow("directory over a file")
        << int(Python) << Members{file("x", 5), dir("x"), file("after", 5)} << int(Intact) << 9
        << Tree{{"x", content("x", 5)}} << QStringList{notProcessed};
}

void tst_OvaExtractor::extracts()
{
    QFETCH(int, tool);
    QFETCH(Members, members);
    QFETCH(int, damage);
    QFETCH(int, result);
    QFETCH(Tree, tree);
    QFETCH(QStringList, lines);

    if (tool == Python) {
        QV_REQUIRE_PROGRAM(python, "python3");
    } else {
        QV_REQUIRE_PROGRAM(tar, "tar");
    }
    QTemporaryDir parent;
    QVERIFY(parent.isValid());
    const QString archive = parent.filePath(QStringLiteral("image.ova"));
    const QString dest = parent.filePath(QStringLiteral("dest"));
    QString error;
    QVERIFY2(buildArchive(Tool(tool), members, archive, &error), qPrintable(error));

    QFile file(archive);
    QVERIFY(file.open(QIODevice::ReadWrite));
    if (damage == BadChecksum) {
        QVERIFY(file.seek(150));
        char digit = 0;
        QVERIFY(file.getChar(&digit));
        QVERIFY(file.seek(150));
        QVERIFY(file.putChar(digit == '7' ? '6' : char(digit + 1)));
    } else if (damage == CutInData) {
        QVERIFY(file.resize(512 + 5000));
    } else if (damage == CutAfterData) {
        QVERIFY(file.resize(512 + 10240));
    }
    file.close();

    const Tree outsideBefore = outsideOf(parent.path(), QStringLiteral("dest"));
    LogCapture log;
    QCOMPARE(extractOva(archive, dest), result);
    QCOMPARE(treeOf(dest), tree);
    QCOMPARE(outsideOf(parent.path(), QStringLiteral("dest")), outsideBefore);

    for (QString &line : lines) {
        line.replace(QLatin1String("{archive}"), archive)
            .replace(QLatin1String("{dest}"), dest)
            .replace(QLatin1String("{parent}"), parent.path());
    }
    QCOMPARE(problemLines(log), lines);
}

void tst_OvaExtractor::refusesUnusablePaths_data()
{
    QTest::addColumn<QString>("archive");  // in a directory holding "a.ova", the empty "file" and "sub"
    QTest::addColumn<QString>("destination");
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("line");

    const QString unreadable = QStringLiteral("Tar is not accessible and readable: ' {archive} '.");
    const QString noDestination =
        QStringLiteral("Destination directory cannot be created or is not accessible: ' {dest} '.");
    QTest::newRow("missing archive") << "missing.ova" << "dest" << 1 << unreadable;
    QTest::newRow("archive is a directory") << "sub" << "dest" << 1 << unreadable;
    QTest::newRow("destination under a file") << "a.ova" << "file/dest" << 9 << noDestination;
    QTest::newRow("destination is a file") << "a.ova" << "file" << 9 << noDestination;
}

void tst_OvaExtractor::refusesUnusablePaths()
{
    QFETCH(QString, archive);
    QFETCH(QString, destination);
    QFETCH(int, result);
    QFETCH(QString, line);

    QV_REQUIRE_PROGRAM(tar, "tar");
    QTemporaryDir root;
    QString error;
    QVERIFY2(buildArchive(GnuUstar, {Member{'0', "disk.vmdk", 10, {}}}, root.filePath("a.ova"), &error),
             qPrintable(error));
    QFile file(root.filePath(QStringLiteral("file")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    QVERIFY(QDir(root.path()).mkdir(QStringLiteral("sub")));
    const Tree before = treeOf(root.path());

    LogCapture log;
    const QString archivePath = root.filePath(archive);
    const QString destPath = root.filePath(destination);
    QCOMPARE(extractOva(archivePath, destPath), result);
    line.replace(QLatin1String("{archive}"), archivePath).replace(QLatin1String("{dest}"), destPath);
    QCOMPARE(problemLines(log), QStringList{line});
    QCOMPARE(treeOf(root.path()), before);
}

void tst_OvaExtractor::reportsOutputFailures_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("result");
    QTest::addColumn<QStringList>("prefixes");

    // The file's own buffer takes the first 16 KiB, so a small record fails only at the flush.
    QTest::newRow("flush fails") << 4097 << 7
                                 << QStringList{"Got an error while flushing file.", "Failed to process tar archive record."};
    QTest::newRow("chunk write fails")
        << 20000 << 11
        << QStringList{"Got an error while writing file chunk to disk: ", "Result calling writeFileChunk().",
                       "Failed to process tar archive record."};
}

void tst_OvaExtractor::reportsOutputFailures()
{
    QFETCH(int, size);
    QFETCH(int, result);
    QFETCH(QStringList, prefixes);

#ifndef Q_OS_LINUX
    QSKIP("needs /dev/full");
#endif
    QV_REQUIRE_PROGRAM(tar, "tar");
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
        QSKIP("needs /dev/full");
    QTemporaryDir parent;
    const QString archive = parent.filePath(QStringLiteral("image.ova"));
    const QString dest = parent.filePath(QStringLiteral("dest"));
    QString error;
    QVERIFY2(buildArchive(GnuUstar, {Member{'0', "full", size, {}}}, archive, &error), qPrintable(error));
    QVERIFY(QDir().mkpath(dest));
    QVERIFY(QFile::link(QStringLiteral("/dev/full"), dest + QLatin1String("/full")));

    LogCapture log;
    QCOMPARE(extractOva(archive, dest), result);
    const QStringList lines = log.lines(QtCriticalMsg);
    QCOMPARE(lines.size(), prefixes.size());
    for (int i = 0; i < lines.size(); ++i)
        QVERIFY2(lines.at(i).startsWith(prefixes.at(i)), qPrintable(log.dump()));
}

void tst_OvaExtractor::writeFileChunkWritesEverything_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("empty") << 0;
    QTest::newRow("one chunk") << 4096;
    QTest::newRow("past the file's buffer") << 100000;
}

void tst_OvaExtractor::writeFileChunkWritesEverything()
{
    QFETCH(int, size);

    QTemporaryDir dir;
    const QByteArray data = content(QStringLiteral("chunk"), size);
    QFile file(dir.filePath(QStringLiteral("out")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(writeFileChunk(file, data.constData(), data.size()));
    file.close();
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), data);

    if (!QFileInfo::exists(QStringLiteral("/dev/full")) || size == 0)
        return;
    QFile full(QStringLiteral("/dev/full"));
    QVERIFY(full.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    LogCapture log;
    QVERIFY(!writeFileChunk(full, data.constData(), data.size()));
    QVERIFY2(log.containsPrefix(QtCriticalMsg, QStringLiteral("Got an error while writing file chunk to disk: ")),
             qPrintable(log.dump()));
}

QTEST_GUILESS_MAIN(tst_OvaExtractor)
#include "tst_ovaextractor.moc"
