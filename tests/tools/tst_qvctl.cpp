#include "devicelock.h"
#include "fakeprogram.h"
#include "fixtures.h"
#include "processutils.h"
#include "testenv.h"
#include "testfiles.h"

#include <QDirIterator>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

// qvctl run as a user runs it, against a temporary home and the real QEMU. Each step of
// tests/data/tools/*.txt is "$ [NAME=value ...] arguments", the whole expected output (both
// streams; "..." ends a comparison early) and "? exit code". $DIR is the test's folder; uuids,
// disk usage and the host's QEMU version, CPU and OS are masked; a terminal's \r and line
// clear show as <CR> and <EL>. QV_REGENERATE_GOLDEN=1 writes the actual steps to <file>.new.
class tst_Qvctl : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;

    static void readSteps(const QString &name)
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("exitCode");
        const QStringList lines = QString::fromUtf8(fileContents(QV_TEST_DATA_DIR "/tools/" + name)).split('\n');
        QString command, expected;
        for (const QString &line : lines) {
            if (line.startsWith("$ ")) {
                command = line.mid(2);
                expected.clear();
            } else if (line.startsWith("? ")) {
                QTest::newRow(qPrintable(command)) << name << command.split(' ', Qt::SkipEmptyParts) << expected << line.mid(2).toInt();
            } else {
                expected += line + '\n';
            }
        }
    }

    void step()
    {
        QFETCH(QString, file);
        QFETCH(QStringList, words);
        QFETCH(QString, expected);
        QFETCH(int, exitCode);
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"QV_TRIGGER_ERROR", "QV_QEMU_START_ARGS", "QV_OSIMAGE_ARCH_LIST", "QV_PLUGIN_PATH", "QV_QEMU_BIN_DIR",
                                 "QV_KVM_DEVICE", "QV_FEATURE_FLAGS", "QV_WEBSITE_URL"})
            environment.remove(name);
        environment.insert("QV_HOME", m_dir.filePath("home"));
        QStringList arguments = words.replaceInStrings("$DIR", m_dir.path());
        while (!arguments.isEmpty() && QRegularExpression("^[A-Z_]+=").match(arguments.first()).hasMatch()) {
            const QString assignment = arguments.takeFirst();
            environment.insert(assignment.section('=', 0, 0), assignment.section('=', 1));
        }
        // QV_TEST_BUSY=NAME: this test holds the device's operation lock during the step.
        DeviceLock held(m_dir.filePath("home/.Lumarik/Quorvel/deployed/") + environment.value("QV_TEST_BUSY", "-"));
        QVERIFY(!environment.contains("QV_TEST_BUSY") || held.tryAcquire());
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        const QStringList homeBefore = QDir(m_dir.filePath("home")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        const bool terminal = environment.contains("QV_TEST_TERMINAL");  // on a pseudo-terminal, through util-linux's script
        process.start(terminal ? "script" : QVCTL_PATH, terminal ? QStringList{"-qec", "'" QVCTL_PATH "' '" + arguments.join("' '") + "'", "/dev/null"} : arguments);
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished(5000);
        }
        QString output = QString::fromUtf8(process.readAll()).replace(m_dir.path(), "$DIR").replace("\r\n", "\n").replace('\r', "<CR>").replace("\033[K", "<EL>");
        output.replace(QRegularExpression("((<CR>[-|/\\\\] [^<\n]*){2})(<CR>[-|/\\\\] [^<\n]*)+"), "\\1").replace(QRegularExpression("\\d+\\.\\d s\\b"), "<t> s");  // a spinner's times and frames after the second
        output.replace(QRegularExpression("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"), "<uuid>");
        output.replace(QRegularExpression("(sizeOnDiskBytes\"?:\\s*)\\d+"), "\\1<n>");
        output.replace(QRegularExpression("(QEMU version: +|\"(?:qemu|version)\": \"|QEMU (?=\\d))[^\"\\s]+"), "\\1<version>");
        output.replace(QRegularExpression("(imageVersion\"?:\\s*\"?|, image )1\\.0\\.\\d+"), "\\11.0.<n>");  // a bare archive's own image version
        output.replace(QRegularExpression("^(\\s*\"?(CPU|CPU virtualisation|Host OS|Host architecture|cpuVendor|cpuVirtualization|hostOs|hostArchitecture)\"?: +).*$",
                                          QRegularExpression::MultilineOption), "\\1<host>");
        const int code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        if (qEnvironmentVariable("QV_REGENERATE_GOLDEN") == "1") {
            QFile out(QV_TEST_DATA_DIR "/tools/" + file + ".new");
            QVERIFY(out.open(QIODevice::Append));
            out.write(QStringLiteral("$ %1\n%2? %3\n").arg(words.join(' ').replace(m_dir.path(), "$DIR"), output).arg(code).toUtf8());
        }
        const int cut = expected.indexOf("...\n");
        QCOMPARE(cut < 0 ? output : output.left(cut), cut < 0 ? expected : expected.left(cut));
        QCOMPARE(code, exitCode);
        // Bad usage is refused before the module is loaded: the home stays as it was.
        if (code == 2)
            QCOMPARE(QDir(m_dir.filePath("home")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), homeBefore);
    }

private slots:
    void initTestCase()
    {
        QV_REQUIRE_PROGRAM(qemu, "qemu-system-x86_64");
        QV_REQUIRE_PROGRAM(img, "qemu-img");
        QString ova;
        QVERIFY(m_dir.isValid() && QDir().mkpath(m_dir.filePath("home")) && makeOva(img, m_dir.path(), &ova));
        QVERIFY(FakeProgram(m_dir.path(), "qemu-system-x86_64").isValid());  // scripted by qemu-system-x86_64.rules.json
        for (const QString &name : QDir(QV_TEST_DATA_DIR "/tools").entryList({"*.json"}))
            QVERIFY(QFile::copy(QV_TEST_DATA_DIR "/tools/" + name, m_dir.filePath(name)));
        // A QEMU log beyond what --json shows; a second home that keeps its devices in the first.
        QVERIFY(writeFile(m_dir.filePath("home/.Lumarik/Quorvel/deployed/biglog/qemu.log"), "cut\n" + QByteArray(16 << 20, 'x')) && writeFile(m_dir.filePath(
                "home2/.Lumarik/Quorvel/settings.json"), "{\"version\": 1, \"virtual_devices.directory\": \"" + m_dir.filePath("home/.Lumarik/Quorvel/deployed").toUtf8() + "\"}"));
    }
    void cleanupTestCase()
    {
        // Whatever a step left running ends with the test.
        QDirIterator it(m_dir.filePath("home"), {"qemu.lock"}, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const qint64 pid = QSettings(it.next(), QSettings::IniFormat).value("pid").toLongLong();
            if (pid > 0 && isRunning(quint32(pid)))
                destroyProcess(quint32(pid));
        }
    }
    void usage_data() { readSteps("usage.txt"); }
    void usage() { step(); }
    void session_data()
    {
        // What an interrupted create left; the session's first step deletes it.
        QVERIFY(writeFile(m_dir.filePath("home/.Lumarik/Quorvel/deployed/leftover/shared/config/device.json"), "cut"));
        readSteps("session.txt");
    }
    void session() { step(); }
};

QTEST_GUILESS_MAIN(tst_Qvctl)
#include "tst_qvctl.moc"
