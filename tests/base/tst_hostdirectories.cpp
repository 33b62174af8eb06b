#include "hostdirectories.h"
#include "logcapture.h"
#include "version.h"

#include <QtTest>

#include <thread>
#include <vector>

namespace {

struct ProbeRun
{
    bool finished = false;
    QProcess::ExitStatus exitStatus = QProcess::NormalExit;
    int exitCode = -1;
    QMap<QString, QString> table;
    QStringList errorLines;
};

// Runs the probe with QV_HOME (unset when null) and a private data location.
ProbeRun runProbe(const QString &workDir, const QString &qvHome, const QString &dataHome)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (qvHome.isNull())
        env.remove(QStringLiteral("QV_HOME"));
    else
        env.insert(QStringLiteral("QV_HOME"), qvHome);
    env.insert(QStringLiteral("XDG_DATA_HOME"), dataHome);
    env.insert(QStringLiteral("QT_MESSAGE_PATTERN"), QStringLiteral("%{type}|%{message}"));

    QProcess probe;
    probe.setProcessEnvironment(env);
    probe.setWorkingDirectory(workDir);
    probe.start(QStringLiteral(HOSTDIRPROBE), QStringList());
    ProbeRun run;
    run.finished = probe.waitForFinished(30000);
    if (!run.finished) {
        probe.kill();
        probe.waitForFinished(5000);
        return run;
    }
    run.exitStatus = probe.exitStatus();
    run.exitCode = probe.exitCode();
    for (const QString &line : QString::fromUtf8(probe.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts)) {
        const int eq = line.indexOf('=');
        run.table.insert(line.left(eq), line.mid(eq + 1));
    }
    run.errorLines = QString::fromUtf8(probe.readAllStandardError()).split('\n', Qt::SkipEmptyParts);
    return run;
}

const QStringList CreationOrder = {QStringLiteral("home"),     QStringLiteral("templates"),
                                   QStringLiteral("cache"),    QStringLiteral("ova"),
                                   QStringLiteral("deployed"), QStringLiteral("themes"),
                                   QStringLiteral("hwProfiles"), QStringLiteral("osImages"),
                                   QStringLiteral("systemImages"), QStringLiteral("skins"),
                                   QStringLiteral("media")};

const QMap<QString, QString> Suffixes = {
    {QStringLiteral("templates"), QStringLiteral("/templates/")},
    {QStringLiteral("cache"), QStringLiteral("/cache/")},
    {QStringLiteral("ova"), QStringLiteral("/ova/")},
    {QStringLiteral("hwProfiles"), QStringLiteral("/hwprofiles/")},
    {QStringLiteral("osImages"), QStringLiteral("/osimages/")},
    {QStringLiteral("systemImages"), QStringLiteral("/system-images/")},
    {QStringLiteral("deployed"), QStringLiteral("/deployed/")},
    {QStringLiteral("themes"), QStringLiteral("/themes/")},
    {QStringLiteral("skins"), QStringLiteral("/skins/")},
    {QStringLiteral("media"), QStringLiteral("/media/")}};

bool makeFile(const QString &path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write("x") == 1;
}

} // namespace

class tst_HostDirectories : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void tableLayout_data();
    void tableLayout();
    void uncreatableHomeIsFatal();
    void failedCreationsAreLoggedInOrder();
    void oneFailedEntryDoesNotStopTheOthers();
    void builtOnceAcrossThreads();
    void laterHomeChangeHasNoEffect();
    void systemImageDirectoryKeepsDoubledSeparator();

private:
    QTemporaryDir m_home;
    QTemporaryDir m_scratch;
};

void tst_HostDirectories::initTestCase()
{
    QVERIFY(m_home.isValid() && m_scratch.isValid());
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
}

void tst_HostDirectories::tableLayout_data()
{
    QTest::addColumn<QString>("qvHome");       // relative to the work directory; null: unset
    QTest::addColumn<QString>("expectedHome"); // relative to the work directory

    QTest::newRow("unset uses the data location") << QString() << QStringLiteral("data/Lumarik/Quorvel");
    QTest::newRow("set hides the vendor directory") << QStringLiteral("%1/qv")
                                                    << QStringLiteral("qv/.Lumarik/Quorvel");
    QTest::newRow("relative is made absolute") << QStringLiteral("rel/ative")
                                               << QStringLiteral("rel/ative/.Lumarik/Quorvel");
    QTest::newRow("non-ASCII") << QStringLiteral("%1/h\u00e9me")
                               << QStringLiteral("h\u00e9me/.Lumarik/Quorvel");
}

void tst_HostDirectories::tableLayout()
{
    QFETCH(QString, qvHome);
    QFETCH(QString, expectedHome);
    QTemporaryDir work;
    QVERIFY(work.isValid());
    const QString root = QDir(work.path()).canonicalPath();

    const ProbeRun run = runProbe(root, qvHome.contains("%1") ? qvHome.arg(root) : qvHome,
                                  root + QStringLiteral("/data"));
    QVERIFY(run.finished);
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 0);
    QVERIFY2(run.errorLines.isEmpty(), qPrintable(run.errorLines.join('\n')));

    const QString home = root + '/' + expectedHome;
    QCOMPARE(run.table.value("home"), home);
    QCOMPARE(run.table.value("vendor"), QFileInfo(home).path());
    for (auto it = Suffixes.cbegin(); it != Suffixes.cend(); ++it) {
        QCOMPARE(run.table.value(it.key()), home + it.value());
        QVERIFY2(QFileInfo(home + it.value()).isDir(), qPrintable(it.key()));
    }
}

void tst_HostDirectories::uncreatableHomeIsFatal()
{
    QTemporaryDir work;
    QVERIFY(work.isValid());
    const QString blocker = work.filePath("plain-file");
    QVERIFY(makeFile(blocker));
    const QString qvHome = blocker + QStringLiteral("/h\u00e9me");

    const ProbeRun run = runProbe(work.path(), qvHome, work.filePath("data"));
    QVERIFY(run.finished);
    QVERIFY(run.exitStatus == QProcess::CrashExit || run.exitCode != 0);
    QVERIFY(run.table.isEmpty());
    const QString expected = QStringLiteral("fatal|QV_HOME is set to '%1', but this directory cannot be created.")
                                     .arg(qvHome);
    QVERIFY2(run.errorLines.contains(expected), qPrintable(run.errorLines.join('\n')));
}

void tst_HostDirectories::failedCreationsAreLoggedInOrder()
{
    // With the vendor directory blocked by a file, every entry fails, in creation order.
    QTemporaryDir work;
    QVERIFY(work.isValid());
    const QString qvHome = work.filePath("qv");
    QVERIFY(makeFile(qvHome + QStringLiteral("/.Lumarik")));

    const ProbeRun run = runProbe(work.path(), qvHome, work.filePath("data"));
    QVERIFY(run.finished);
    QCOMPARE(run.exitStatus, QProcess::NormalExit);
    QCOMPARE(run.exitCode, 0);
    QStringList expected;
    for (const QString &entry : CreationOrder)
        expected << QStringLiteral("critical|Failed to create %1 things may go wrong").arg(run.table.value(entry));
    QCOMPARE(run.errorLines, expected);
    QCOMPARE(run.table.value("media"), qvHome + QStringLiteral("/.Lumarik/Quorvel/media/"));
}

void tst_HostDirectories::oneFailedEntryDoesNotStopTheOthers()
{
    QTemporaryDir work;
    QVERIFY(work.isValid());
    const QString qvHome = work.filePath("qv");
    const QString home = qvHome + QStringLiteral("/.Lumarik/Quorvel");
    QVERIFY(makeFile(home + QStringLiteral("/cache")));
    QVERIFY(makeFile(home + QStringLiteral("/themes")));

    const ProbeRun run = runProbe(work.path(), qvHome, work.filePath("data"));
    QVERIFY(run.finished);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.errorLines,
             QStringList({QStringLiteral("critical|Failed to create %1/cache/ things may go wrong").arg(home),
                          QStringLiteral("critical|Failed to create %1/themes/ things may go wrong").arg(home)}));
    for (const QString &entry : CreationOrder) {
        if (entry != QLatin1String("cache") && entry != QLatin1String("themes"))
            QVERIFY2(QFileInfo(run.table.value(entry)).isDir(), qPrintable(entry));
    }
}

void tst_HostDirectories::builtOnceAcrossThreads()
{
    std::vector<const HostDirectories *> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = &directories(); });
    for (std::thread &t : threads)
        t.join();
    for (const HostDirectories *table : seen)
        QCOMPARE(table, &directories());

    // The accessors hand out the same table.
    QCOMPARE(homeDirectory(), QDir(m_home.path()).absolutePath() + QStringLiteral("/.Lumarik/Quorvel"));
    QCOMPARE(hwProfilesDirectory(), homeDirectory() + "/hwprofiles/");
    QCOMPARE(systemImagesDirectory(), homeDirectory() + "/system-images/");
    QCOMPARE(deployedDirectory(), homeDirectory() + "/deployed/");
}

void tst_HostDirectories::laterHomeChangeHasNoEffect()
{
    const QString before = homeDirectory();
    qputenv("QV_HOME", QFile::encodeName(m_scratch.path()));
    QCOMPARE(homeDirectory(), before);
    QVERIFY(!QFileInfo::exists(m_scratch.filePath(".Lumarik")));
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
}

void tst_HostDirectories::systemImageDirectoryKeepsDoubledSeparator()
{
    Version first;
    first.majorVersion = 7;
    first.minorVersion = 1;
    Version second;
    second.majorVersion = 2;
    second.minorVersion = 0;
    second.patchVersion = 3;
    const QString path = systemImageDirectory(first, second);
    QCOMPARE(path, systemImagesDirectory() + "/" + first.toString() + "/" + second.toString());
    QVERIFY(path.contains("/system-images//"));
    QVERIFY(defaultQemuDirectory().endsWith("/qemu/x86_64"));
    QCOMPARE(QDir::cleanPath(path), QDir::cleanPath(systemImagesDirectory() + first.toString() + "/" + second.toString()));
}

QTEST_GUILESS_MAIN(tst_HostDirectories)
#include "tst_hostdirectories.moc"
