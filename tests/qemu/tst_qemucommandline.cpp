#include "fixtures.h"
#include "logcapture.h"
#include "qemucommandline.h"
#include "qemumachine.h"
#include "testfiles.h"

#include <QtTest>

namespace {

const QString DataDir = QStringLiteral(QV_TEST_DATA_DIR "/cmdline/");

// Rows of a table file under tests/data/cmdline: fields separated by "|", "#" starts a comment.
void addRows(const QString &file, const QVector<const char *> &columns)
{
    for (const char *column : columns)  // Qt Test keeps the name pointers: literals only
        QTest::addColumn<QString>(column);
    QTest::addColumn<QStringList>("rest");
    const QStringList lines = QString::fromUtf8(fileContents(DataDir + file)).split('\n', Qt::SkipEmptyParts);
    QVERIFY2(lines.size() > 3, qPrintable(file));
    for (const QString &line : lines.filter(QRegularExpression("^[^#]"))) {
        const QStringList fields = line.split(QRegularExpression("\\s*\\|\\s*"));
        QTestData &row = QTest::newRow(qPrintable(fields.first().trimmed().isEmpty() ? "(none)" : fields.first().trimmed()));
        for (int i = 0; i < columns.size(); ++i)
            row << fields.value(i).trimmed();
        row << fields.mid(columns.size()).filter(QRegularExpression("."));
    }
}

} // namespace

class tst_QemuCommandLine : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(m_home.isValid()); qputenv("QV_HOME", m_home.path().toUtf8()); }
    void golden_data() { addRows("scenarios.txt", {"tag", "golden", "platform", "setup", "overrides"}); }
    void golden();
    void everyGoldenFileIsUsed();
    void overrides_data() { addRows("overrides.txt", {"entries", "expected", "warned"}); }
    void overrides();
    void startCommandText_data();
    void startCommandText();

private:
    QTemporaryDir m_home;
    QStringList m_used;
};

void tst_QemuCommandLine::golden()
{
    QFETCH(QString, golden);
    QFETCH(QString, platform);
    QFETCH(QString, setup);
    QFETCH(QString, overrides);
    QFETCH(QStringList, rest);  // the log, every line

    // The SD card rule looks at the real file, so the device lives in a real directory.
    QTemporaryDir dir;
    const QString path = dir.path() + (setup.contains("comma") ? "/D,x" : "/D"), version = setup.section("version=", 1);
    QVERIFY(writeFile(path + (setup.contains("present") ? "/sdcard.qcow2" : "/x"), "x"));
    HostPlatform host = platform == "windows" ? HostPlatform::forWindows() : HostPlatform::forLinux();
    host.arm64 |= platform == "arm64";
    QemuLaunchSpec launch;  // the reference example's device (4096 MiB, 4 processors), the setup words on top of the defaults
    launch.machinePath = path;
    launch.memoryMegabytes = 4096;
    launch.cpuCount = 4;
    launch.shareDir = "/usr/share/qemu";
    launch.qmpSocketPath = host.qmpOnUnixSocket ? path + "/qmp.sock" : QString();
    launch.virtio |= version.isEmpty() ? setup.contains("virtio")
            : QEMUMachine(nullptr, path, testProfile(4096, 4), testImage("file:///x.ova", version)).usesVirtio();
    launch.sdCardEnabled |= setup.contains("sdcard");
    launch.showWindow |= setup.contains("window");
    launch.forwardAllInterfaces |= setup.contains("all-interfaces");
    launch.portOffset += setup.contains("offset7") ? 7 : 0;
    launch.snapshotName += setup.contains("snapshot") ? "quickboot" : "";

    LogCapture capture;
    const QStringList arguments = QemuCommandLine(host).arguments(launch, overrides).join('\n').remove(dir.path() + '/').split('\n');
    const QString file = DataDir + golden + ".args";
    if (qEnvironmentVariable("QV_REGENERATE_GOLDEN") == "1")
        QVERIFY(writeFile(file, (arguments.join('\n') + '\n').toUtf8()));
    m_used << golden + ".args";
    QCOMPARE(arguments, QString::fromUtf8(fileContents(file)).split('\n', Qt::SkipEmptyParts));
    QCOMPARE(capture.dump().remove(dir.path() + '/'), rest.join('\n'));
}

void tst_QemuCommandLine::everyGoldenFileIsUsed()
{
    m_used.removeDuplicates();
    m_used.sort();
    QCOMPARE(QDir(DataDir).entryList({"*.args"}, QDir::Files, QDir::Name), m_used);
}

void tst_QemuCommandLine::overrides()
{
    QFETCH(QString, entries);
    QFETCH(QString, expected);
    QFETCH(QString, warned);

    QemuOptionMap options;  // shaped like the real map, with a cleared flag that never shows
    options.addFlag("-S", false);
    QemuCommandLine::applyOverrides(options, "-vga=std&-accel=whpx&-m=4096M&-accel[-1]=hax");
    LogCapture capture;
    QemuCommandLine::applyOverrides(options, entries);
    QCOMPARE(QemuCommandLine::flatten(options).join(' '), expected);
    QCOMPARE(capture.dump(), warned.isEmpty() ? warned : "warning: [VMTools] Ignoring QEMU option override " + warned + " - no such occurrence");
}

void tst_QemuCommandLine::startCommandText_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("expected");
    QTest::newRow("options") << QStringList{"-m", "4096M", "-nographic", "-drive", ""}
                             << "\"C:/qemu x.exe\" \\\n\"-m\" \"4096M\"  \\\n\"-nographic\"  \\\n\"-drive\" \"\"";
    QTest::newRow("leading value") << QStringList{"v", "-x"} << "\"C:/qemu x.exe\"\"v\"  \\\n\"-x\"";
}

void tst_QemuCommandLine::startCommandText()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, expected);
    QCOMPARE(QemuCommandLine::startCommandText("C:/qemu x.exe", arguments), expected);
}

QTEST_GUILESS_MAIN(tst_QemuCommandLine)
#include "tst_qemucommandline.moc"
