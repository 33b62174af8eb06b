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
    const QString program = row.value("program").toString(m_tool.path()).replace("{dir}", m_dir.path());
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
    QAtomicInt reentered;  // a worker thread blocks while its tool runs: its own events wait
    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back(QThread::create([&, i] { QTimer::singleShot(0, [&] { ++reentered; }); results[i] = runCommand(m_tool.path(), {QString::number(i)}, RunFlags(i % 2 ? NoTimeout : 0)); }));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        QVERIFY(thread->wait(20000));
    QVERIFY2(timer.elapsed() >= 1200 && reentered == 0, qPrintable(QString("%1 ms, %2 events").arg(timer.elapsed()).arg(int(reentered))));
    const QStringList lines = log.all();
    QCOMPARE(lines.size(), 8);
    for (int i = 0; i < 4; ++i) {
        const QString id = lines[2 * i].mid(lines[2 * i].size() - 3, 1);
        QCOMPARE(lines[2 * i], QString("debug: [VMTools] Call: (\"%1\")").arg(id));
        QCOMPARE(lines[2 * i + 1], QString("debug: [VMTools] Return code: 0"));
        QCOMPARE((QJsonArray{results[i].exitCode, results[i].output, results[i].error, results[i].completed}), (QJsonArray{0, QString::number(i), "", true}));
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
    // The record of the pid was written startedBy seconds from now; null: it has no time.
    const QDateTime startedBy = row.value("startedBy").isNull() ? QDateTime() : QDateTime::currentDateTime().addSecs(row["startedBy"].toInt());
    const QString dir = QFileInfo(m_dir.path()).canonicalFilePath();
    // Another account's process: with nobody's rights its image is hidden and the signal refused.
    const bool nobody = row["nobody"].toBool();
    if (nobody && geteuid() != 0) QSKIP("acting as another account needs root");
    QVERIFY(!nobody || setresuid(65534, 65534, 0) == 0);
    LogCapture log;
    const auto text = [](bool b) { return QVariant(b).toString(); };
    QStringList report{"running " + text(isRunning(pid)), "name " + processNameByPid(pid),
                       "runs " + text(runsProgram(pid, row["program"].toString(m_tool.path()).replace("{dir}", dir), startedBy)),
                       "ended " + text(waitForProcessEnd(pid, 500)), "destroyed " + text(destroyProcess(pid))};
    QVERIFY(!nobody || setresuid(0, 0, 0) == 0);
    QCOMPARE(log.all(), row["log"].toVariant().toStringList().replaceInStrings("{pid}", QString::number(pid))
             .replaceInStrings("{dir}", dir).replaceInStrings("{startedBy}", startedBy.toString(Qt::ISODateWithMs)));
    report << "running " + text(isRunning(pid));
    QCOMPARE(report, row["report"].toVariant().toStringList());
    process.kill();
    process.waitForFinished(5000);
}

QTEST_GUILESS_MAIN(tst_Process)
#include "tst_process.moc"
