#include "casetable.h"
#include "filecopy.h"
#include "fileutils.h"
#include "hostdirectories.h"
#include "osimage.h"
#include "version.h"

namespace {

// Run as a child with this argument, the binary prints its directory table and exits:
// the table is made once per process, so every QV_HOME needs a process of its own.
const char PrintTable[] = "--print-directories";

int printDirectories()
{
    const QStringList lines{
            "vendor=" + directories().vendor, "home=" + homeDirectory(),
            "templates=" + templatesDirectory(), "cache=" + cacheDirectory(), "ova=" + ovaDirectory(),
            "hwprofiles=" + hwProfilesDirectory(), "osimages=" + osImagesDirectory(),
            "systemimages=" + systemImagesDirectory(), "deployed=" + deployedDirectory(),
            "themes=" + themesDirectory(), "skins=" + skinsDirectory(), "media=" + mediaDirectory()};
    for (const QString &line : lines)
        printf("%s%s\n", qPrintable(line), QFileInfo(line.section('=', 1)).isDir() ? "" : " (missing)");
    printf("qemu=%s\nimage=%s\n", qPrintable(defaultQemuDirectory()),
           qPrintable(systemImageDirectory(parseVersion("11.0.0"), parseVersion("2.1.0-rc3"))));
    return 0;
}

// "relative path=content" of every file below dir.
QStringList filesBelow(const QString &dir)
{
    QStringList files;
    for (const QString &name : treeHashes(dir).keys())
        files << name + "=" + fileContents(dir + "/" + name);
    return files;
}

} // namespace

class tst_Base : public QObject
{
    Q_OBJECT
private slots:
    void directoryTable_data() { addCaseRows("base/directories.json"); }
    void directoryTable()
    {
        QV_FETCH_CASE;
        QTemporaryDir work;
        const QString root = QDir(work.path()).canonicalPath();
        const auto fill = [&](const char *key) { return expand(c[key], {{"%1", root}, {"%B", QCoreApplication::applicationDirPath()}}); };
        for (const QJsonValue &blocker : fill("blockers").toArray())
            QVERIFY(writeFile(blocker.toString(), "x"));
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("QV_HOME");
        if (c.contains("home"))
            env.insert("QV_HOME", fill("home").toString());
        env.insert("XDG_DATA_HOME", root + "/data");
        env.insert("QT_MESSAGE_PATTERN", "%{type}: %{message}");
        QProcess child;
        child.setProcessEnvironment(env);
        child.setWorkingDirectory(root);
        child.start(QCoreApplication::applicationFilePath(), {PrintTable});
        QVERIFY(child.waitForFinished(20000));
        QCOMPARE(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0, !c["fatal"].toBool());
        const auto lines = [](const QByteArray &text) { return QJsonArray::fromStringList(QString::fromUtf8(text).split('\n', Qt::SkipEmptyParts)); };
        QV_COMPARE_JSON(lines(child.readAllStandardOutput()), fill("out").toArray());
        QV_COMPARE_JSON(lines(child.readAllStandardError()), fill("log").toArray());
    }

    void readJson_data() { addCaseRows("base/readjson.json"); }
    void readJson()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        QVERIFY(writeFile(dir.filePath("good.json"), "{\"a\": [1, true]}") && writeFile(dir.filePath("array.json"), "[1]")
                && writeFile(dir.filePath("bad.json"), "{") && QDir(dir.path()).mkdir("sub"));
        const QString path = QDir(dir.path()).absoluteFilePath(c["file"].toString());
        LogCapture capture;
        QCOMPARE(!c.contains("write") || withFileSizeLimit(c["fileSizeLimit"].toInt(-1), [&] { return int(writeFileAtomically(path, c["write"].toString().toUtf8())); }),
                 c["written"].toBool(true));
        const JsonReadResult read = readJsonFile(path);
        const ReadResult raw = readFile(path);
        QCOMPARE(read.status, c["status"].toInt());
        QCOMPARE(read.document.toJson(QJsonDocument::Compact), c["json"].toString().toUtf8());
        QCOMPARE(raw.ok, read.status != 1);
        QCOMPARE(raw.data, raw.ok ? fileContents(path) : QByteArray());
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], {{"%1", path}}).toArray());
    }

    void walk()
    {
        QTemporaryDir dir;
        for (const char *name : {"a.json", "b.txt", ".hidden.json", "d/e/c.json", "d/f.JSON", ".h/g.json"})
            QVERIFY(writeFile(dir.filePath(name), name));
        for (const QStringList &filters : {QStringList{"*.json"}, QStringList()}) {
            QStringList seen;
            walkFiles(dir.path(), filters, [&](const QFileInfo &f) { seen << QDir(dir.path()).relativeFilePath(f.filePath()); });
            seen.sort();
            QCOMPARE(seen.removeAll("b.txt"), filters.isEmpty() ? 1 : 0);
            QCOMPARE(seen, QStringList({".h/g.json", ".hidden.json", "a.json", "d/e/c.json", "d/f.JSON"}));
        }
    }

    void copyTree_data() { addCaseRows("base/copytree.json"); }
    void copyTree()
    {
        QV_FETCH_CASE;
        QTemporaryDir dir;
        for (const char *name : {"a.txt", "d/b.txt", "e.txt", ".hidden", "d/.h/c.txt"})
            QVERIFY(writeFile(dir.filePath("src/") + name, name));
        QVERIFY(QFile::link(dir.filePath("src/a.txt"), dir.filePath("src/link.txt")));
        for (const QJsonValue &name : c["existing"].toArray())
            QVERIFY(writeFile(dir.filePath("out/") + name.toString(), "old"));
        LogCapture capture;
        QCOMPARE(copyRecursively(dir.filePath(c["from"].toString()), dir.filePath(c["to"].toString())), c["ok"].toBool());
        QV_COMPARE_JSON(QJsonArray::fromStringList(filesBelow(dir.filePath("out"))), c["result"].toArray());
        QV_COMPARE_JSON(logLines(capture), expand(c["log"], {{"%1", dir.path()}}).toArray());
    }

    void copyFast_data() { addCaseRows("base/copyfast.json"); }
    void copyFast()
    {
        QV_FETCH_CASE;
        const QString from = c["from"].toString(), to = c["to"].toString(), error = c["error"].toString();
        QTemporaryDir dir;
        QByteArray big((3 << 20) + 1, Qt::Uninitialized);  // the last read is one byte
        for (int i = 0; i < big.size(); ++i)
            big[i] = char(i * 7 + i / 4096);
        QVERIFY(writeFile(dir.filePath("big"), big) && writeFile(dir.filePath("small"), "old"));
        QVERIFY(QFile::setPermissions(dir.filePath("big"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QMap<QString, QByteArray> expected = treeHashes(dir.path());
        // A source on tmpfs: no clone and no in-kernel copy across file system types, so the
        // plain read and write loop has to do the work.
        QTemporaryDir tmpfs(QStringLiteral("/dev/shm/copyfast-XXXXXX"));
        const bool fromTmpfs = c["fromTmpfs"].toBool();
        if (fromTmpfs && !tmpfs.isValid())
            QSKIP("no /dev/shm here");
        const QString source = QDir(fromTmpfs ? tmpfs.path() : dir.path()).filePath(from);
        QVERIFY(!fromTmpfs || writeFile(source, big));
        QString errorText;
        QCOMPARE(withFileSizeLimit(c["fileSizeLimit"].toInt(-1), [&] { return int(copyFileFast(source, dir.filePath(to), &errorText)); }), int(error.isEmpty()));
        QCOMPARE(errorText, error);
        if (error.isEmpty()) {
            expected.insert(to, fileHash(source));
            QCOMPARE(QFile::permissions(dir.filePath(to)), QFile::permissions(source));
        }
        QCOMPARE(treeHashes(dir.path()), expected);
    }
};

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], PrintTable) == 0)
        return printDirectories();
    tst_Base test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_base.moc"
