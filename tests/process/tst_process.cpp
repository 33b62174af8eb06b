#include "commandrunner.h"
#include "fakeprogram.h"
#include "fixtures.h"
#include "logcapture.h"
#include "processutils.h"
#include "testfiles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <spawn.h>
#include <sys/wait.h>

namespace {

void addRows(const char *file)
{
    QTest::addColumn<QJsonObject>("row");
    const QJsonArray rows = QJsonDocument::fromJson(fileContents(QString(QV_TEST_DATA_DIR "/process/") + file)).array();
    QVERIFY(!rows.isEmpty());
    for (const QJsonValue &row : rows)
        QTest::newRow(qPrintable(row["case"].toString())) << row.toObject();
}

} // namespace

class tst_Process : public QObject
{
    Q_OBJECT
private slots:
    void init() { QVERIFY(m_tool.isValid()); }
    void cleanup() { setDefaultCommandTimeoutForTesting(0); killProcessesBelow(m_dir.path()); }
    void run_data() { addRows("run.json"); }
    void run();
    void serialised();
    void processTable_data() { addRows("pids.json"); }
    void processTable();

private:
    QTemporaryDir m_dir;
    FakeProgram m_tool{m_dir.filePath("bin"), "qemu-system-x86_64"};
};

void tst_Process::run()
{
    QFETCH(QJsonObject, row);
    const QString program = row["missing"].toBool() ? m_dir.filePath("missing/qemu-img") : m_tool.path();
    m_tool.setRules({{"rules", QJsonArray{row["rule"]}}});
    setDefaultCommandTimeoutForTesting(row["limit"].toInt());
    int polls = 0;
    std::function<bool()> cancel;
    if (row.contains("cancelAt"))
        cancel = [&] { return ++polls == row["cancelAt"].toInt(); };
    bool ticked = false;  // the caller's events go on while the tool runs
    QTimer::singleShot(0, [&ticked] { ticked = true; });

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    const CommandResult result = runCommand(program, {"convert", "a b.vmdk"}, RunFlags(row["flags"].toInt()), cancel);
    const qint64 elapsed = timer.elapsed();
    QCOMPARE((QJsonArray{result.exitCode, result.output, result.error, result.completed}), row["result"].toArray());
    QCOMPARE(log.all().join('\n'), row["log"].toVariant().toStringList().join('\n').replace("{program}", program));
    QVERIFY2(elapsed >= row["minMs"].toInt() && elapsed < row["maxMs"].toInt(60000), qPrintable(QString::number(elapsed)));
    QCOMPARE(polls, row["polls"].toInt());
    QVERIFY(ticked);
    QCOMPARE(processesBelow(m_dir.path()), QList<qint64>());  // a tool that was stopped is gone
}

// One tool at a time: each run's lines stay together, and the runs take their sum.
void tst_Process::serialised()
{
    QJsonArray rules;
    for (int i = 0; i < 4; ++i)
        rules.append(QJsonObject{{"match", QJsonArray{QString::number(i)}}, {"stdout", QString::number(i)}, {"sleep_ms", 300}});
    m_tool.setRules({{"rules", rules}});
    QVector<CommandResult> results(4);
    std::vector<std::unique_ptr<QThread>> threads;
    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([&, i] { results[i] = runCommand(m_tool.path(), {QString::number(i)}); }));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        QVERIFY(thread->wait(20000));
    QVERIFY2(timer.elapsed() >= 1200, qPrintable(QString::number(timer.elapsed())));
    const QStringList lines = log.all();
    QCOMPARE(lines.size(), 8);
    for (int i = 0; i < 4; ++i) {
        const QString id = lines[2 * i].mid(lines[2 * i].size() - 3, 1);
        QCOMPARE(lines[2 * i], QString("debug: [VMTools] Call: (\"%1\")").arg(id));
        QCOMPARE(lines[2 * i + 1], QString("debug: [VMTools] Return code: 0"));
        QCOMPARE((QStringList{QString::number(results[i].exitCode), results[i].output, results[i].error}), (QStringList{"0", QString::number(i), ""}));
    }
}

void tst_Process::processTable()
{
    QFETCH(QJsonObject, row);
    m_tool.setRules({{"rules", QJsonArray{QJsonObject{{"sleep_ms", 60000}}}}});
    const QString kind = row["kind"].toString();
    QByteArray path = QFile::encodeName(m_tool.path());
    char *argv[] = {path.data(), nullptr};
    pid_t child = 0;
    QProcess process;
    qint64 detached = 0;
    quint32 pid = kind.toUInt();
    if (kind == "child") {
        process.start(m_tool.path(), QStringList());
        QVERIFY(process.waitForStarted(10000));
        pid = quint32(process.processId());
    } else if (kind == "detached") {
        QVERIFY(QProcess::startDetached(m_tool.path(), {}, QString(), &detached));
        pid = quint32(detached);
    } else if (kind == "zombie" || kind == "reaped") {
        // Spawned directly, so nothing reaps the child behind the test's back.
        m_tool.setRules({});
        QCOMPARE(posix_spawn(&child, path.constData(), nullptr, nullptr, argv, environ), 0);
        pid = quint32(child);
        QTRY_VERIFY_WITH_TIMEOUT(fileContents(QString("/proc/%1/stat").arg(pid)).contains(") Z "), 10000);
        if (kind == "reaped")
            QCOMPARE(::waitpid(child, nullptr, 0), child);
    }
    LogCapture log;
    QStringList report{QString("running %1").arg(isRunning(pid) ? "true" : "false"), "name " + processNameByPid(pid)};
    report << QString("ended %1").arg(waitForProcessEnd(pid, 500) ? "true" : "false");
    report << QString("destroyed %1").arg(destroyProcess(pid) ? "true" : "false");
    QCOMPARE(report, row["report"].toVariant().toStringList());
    QCOMPARE(log.all(), row["log"].toVariant().toStringList().replaceInStrings("{pid}", QString::number(pid)));
    QVERIFY(!isRunning(pid));
    process.waitForFinished(5000);
}

QTEST_GUILESS_MAIN(tst_Process)
#include "tst_process.moc"
