#include "fileutils.h"
#include "logcapture.h"

#include <QtTest>

namespace {

bool writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(data) == data.size();
}

QByteArray contents(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<unreadable>");
}

// Every file below root as a sorted list of relative paths, hidden ones included.
QStringList treeOf(const QString &root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << QDir(root).relativeFilePath(it.next());
    files.sort();
    return files;
}

} // namespace

class tst_FileUtils : public QObject
{
    Q_OBJECT
private slots:
    void readFileResults_data();
    void readFileResults();
    void readJsonFileStatus_data();
    void readJsonFileStatus();
    void walkFilesFilters_data();
    void walkFilesFilters();
    void copyTreeSkipsHiddenAndLinks();
    void copyFileMakesParents();
    void copyStopsAtFirstFailure();
    void copyLogsEachLevelOfANestedFailure();
    void copyMissingSource();

private:
    QTemporaryDir m_dir;
};

void tst_FileUtils::readFileResults_data()
{
    QTest::addColumn<QString>("path");          // relative to a temporary dir unless absolute
    QTest::addColumn<QByteArray>("content");    // written first when not null
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("warningPrefix");

    QTest::newRow("binary content") << "data.bin" << QByteArray("a\0b\xff\n", 5) << true << QString();
    QTest::newRow("empty file") << "empty" << QByteArray("") << true << QString();
    QTest::newRow("missing") << "missing" << QByteArray() << false << "Failed to open %1 ";
    QTest::newRow("directory") << "." << QByteArray() << false << "Failed to open %1 ";
#ifdef Q_OS_LINUX
    // Opens fine, but reading address 0 of our own memory fails.
    QTest::newRow("read error") << "/proc/self/mem" << QByteArray() << false << "Failed to read %1 ";
#endif
}

void tst_FileUtils::readFileResults()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, content);
    QFETCH(bool, ok);
    QFETCH(QString, warningPrefix);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = QDir::isAbsolutePath(path) ? path : dir.filePath(path);
    if (!content.isNull())
        QVERIFY(writeFile(file, content));

    LogCapture log;
    const ReadResult result = readFile(file);
    QCOMPARE(result.ok, ok);
    QCOMPARE(result.data, ok ? content : QByteArray());
    if (ok) {
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    } else {
        QCOMPARE(log.entries().size(), 1);
        QVERIFY2(log.containsPrefix(QtWarningMsg, warningPrefix.arg(file)), qPrintable(log.dump()));
    }
}

void tst_FileUtils::readJsonFileStatus_data()
{
    QTest::addColumn<QByteArray>("content");  // null: no file
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("expectedJson");

    QTest::newRow("object") << QByteArray("{\"a\": [1, 2]}") << 0 << QByteArray("{\"a\":[1,2]}");
    QTest::newRow("array") << QByteArray("[true]") << 0 << QByteArray("[true]");
    QTest::newRow("missing") << QByteArray() << 1 << QByteArray();
    QTest::newRow("open brace") << QByteArray("{") << 2 << QByteArray();
    QTest::newRow("empty") << QByteArray("") << 2 << QByteArray();
    QTest::newRow("invalid UTF-8") << QByteArray("{\"a\": \"\xff\xfe\"}") << 2 << QByteArray();
    QTest::newRow("trailing garbage") << QByteArray("{} x") << 2 << QByteArray();
}

void tst_FileUtils::readJsonFileStatus()
{
    QFETCH(QByteArray, content);
    QFETCH(int, status);
    QFETCH(QByteArray, expectedJson);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString file = dir.filePath("doc.json");
    if (!content.isNull())
        QVERIFY(writeFile(file, content));

    LogCapture log;
    const JsonReadResult result = readJsonFile(file);
    QCOMPARE(result.status, status);
    if (status == 0)
        QCOMPARE(result.document.toJson(QJsonDocument::Compact), expectedJson);
    else
        QVERIFY(result.document.isNull());
    if (status == 2)
        QVERIFY2(log.containsPrefix(QtWarningMsg, "Failed to read json from " + file + ' '), qPrintable(log.dump()));
    if (status == 1)
        QVERIFY2(log.containsPrefix(QtWarningMsg, "Failed to open " + file), qPrintable(log.dump()));
}

void tst_FileUtils::walkFilesFilters_data()
{
    QTest::addColumn<QStringList>("filters");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("all names") << QStringList()
                               << QStringList{"a.json", "b.txt", "sub/c.json", "sub/deeper/d.json", "sub/e"};
    QTest::newRow("one pattern") << QStringList{"*.json"}
                                 << QStringList{"a.json", "sub/c.json", "sub/deeper/d.json"};
    QTest::newRow("two patterns") << QStringList{"*.txt", "e"} << QStringList{"b.txt", "sub/e"};
    QTest::newRow("no match") << QStringList{"*.ova"} << QStringList();
}

void tst_FileUtils::walkFilesFilters()
{
    QFETCH(QStringList, filters);
    QFETCH(QStringList, expected);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    for (const char *name : {"a.json", "b.txt", "sub/c.json", "sub/deeper/d.json", "sub/e", ".hidden.json",
                             "sub/.hid/f.json"})
        QVERIFY(writeFile(dir.filePath(name), "{}"));
    QVERIFY(QDir(dir.path()).mkpath("empty.json"));  // a directory matching the filter is no file

    QStringList seen;
    walkFiles(dir.path(), filters, [&](const QFileInfo &info) {
        QVERIFY(info.isFile());
        seen << QDir(dir.path()).relativeFilePath(info.filePath());
    });
    seen.sort();
    QCOMPARE(seen, expected);
}

void tst_FileUtils::copyTreeSkipsHiddenAndLinks()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString src = dir.filePath("src");
    QVERIFY(writeFile(src + "/top.txt", "top"));
    QVERIFY(writeFile(src + "/a/b/deep.bin", QByteArray(70000, '\x5a')));
    QVERIFY(writeFile(src + "/.hidden", "secret"));
    QVERIFY(writeFile(src + "/.hiddendir/inside.txt", "no"));
    QVERIFY(QFile::link(src + "/top.txt", src + "/link.txt"));

    LogCapture log;
    QVERIFY(copyRecursively(src, dir.filePath("dst")));
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    QCOMPARE(treeOf(dir.filePath("dst")), QStringList({"a/b/deep.bin", "top.txt"}));
    QCOMPARE(contents(dir.filePath("dst/a/b/deep.bin")), QByteArray(70000, '\x5a'));
    QCOMPARE(contents(dir.filePath("dst/top.txt")), QByteArray("top"));
}

void tst_FileUtils::copyFileMakesParents()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QVERIFY(writeFile(dir.filePath("one"), "1"));
    QVERIFY(copyRecursively(dir.filePath("one"), dir.filePath("x/y/z/one")));
    QCOMPARE(contents(dir.filePath("x/y/z/one")), QByteArray("1"));

    // A single file onto an existing one fails quietly; only directory copies log.
    LogCapture log;
    QVERIFY(writeFile(dir.filePath("two"), "2"));
    QVERIFY(!copyRecursively(dir.filePath("two"), dir.filePath("x/y/z/one")));
    QCOMPARE(contents(dir.filePath("x/y/z/one")), QByteArray("1"));
    QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
}

void tst_FileUtils::copyStopsAtFirstFailure()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString src = dir.filePath("src");
    const QString dst = dir.filePath("dst");
    for (const char *name : {"a", "b", "c"})
        QVERIFY(writeFile(src + '/' + name, name));
    QVERIFY(writeFile(dst + "/b", "existing"));

    LogCapture log;
    QVERIFY(!copyRecursively(src, dst));
    QCOMPARE(log.lines(QtCriticalMsg), QStringList{QStringLiteral("Failed to copy from %1/b to %2/b").arg(src, dst)});
    QCOMPARE(contents(dst + "/a"), QByteArray("a"));
    QCOMPARE(contents(dst + "/b"), QByteArray("existing"));
    QVERIFY(!QFileInfo::exists(dst + "/c"));
}

void tst_FileUtils::copyLogsEachLevelOfANestedFailure()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString src = dir.filePath("src");
    const QString dst = dir.filePath("dst");
    QVERIFY(writeFile(src + "/inner/f", "new"));
    QVERIFY(writeFile(dst + "/inner/f", "old"));

    LogCapture log;
    QVERIFY(!copyRecursively(src, dst));
    QCOMPARE(log.lines(QtCriticalMsg),
             QStringList({QStringLiteral("Failed to copy from %1/inner/f to %2/inner/f").arg(src, dst),
                          QStringLiteral("Failed to copy from %1/inner to %2/inner").arg(src, dst)}));
}

void tst_FileUtils::copyMissingSource()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString missing = dir.filePath("nothing");
    LogCapture log;
    QVERIFY(!copyRecursively(missing, dir.filePath("dst")));
    QCOMPARE(log.lines(QtCriticalMsg), QStringList{"Failed to copy " + missing + " . It's not a file nor a dir"});
    QVERIFY(!QFileInfo::exists(dir.filePath("dst")));
}

QTEST_GUILESS_MAIN(tst_FileUtils)
#include "tst_fileutils.moc"
