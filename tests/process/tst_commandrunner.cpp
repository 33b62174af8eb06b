#include "commandrunner.h"
#include "fakeprogram.h"
#include "logcapture.h"
#include "processutils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <memory>
#include <vector>

namespace {

QJsonObject oneRule(const QJsonObject &rule)
{
    return QJsonObject{{"rules", QJsonArray{rule}}};
}

// How many processes run the given image right now (Linux only; -1 elsewhere).
int runningCopies(const QString &path)
{
#ifdef Q_OS_LINUX
    int count = 0;
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &pid : pids) {
        if (pid.toUInt() != 0 && isRunning(pid.toUInt())
            && QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)) == path)
            ++count;
    }
    return count;
#else
    Q_UNUSED(path);
    return -1;
#endif
}

} // namespace

class tst_CommandRunner : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void cannotStart_data();
    void cannotStart();
    void exitCodes_data();
    void exitCodes();
    void utf8Output();
    void cancel();
    void cancelCallbackPolledUntilFinished();
    void timeLimit_data();
    void timeLimit();
    void concurrentCallersAreSerialised();
    void waitForProcessFinished_data();
    void waitForProcessFinished();
    void waitForProcessEnd_data();
    void waitForProcessEnd();

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QScopedPointer<FakeProgram> m_tool;
};

void tst_CommandRunner::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_tool.reset(new FakeProgram(m_dir->filePath(QStringLiteral("bin")), QStringLiteral("qemu-img")));
    QVERIFY(m_tool->isValid());
}

void tst_CommandRunner::cleanup()
{
    setDefaultCommandTimeoutForTesting(0);
}

void tst_CommandRunner::cannotStart_data()
{
    QTest::addColumn<bool>("quiet");
    QTest::addColumn<bool>("withCancel");
    QTest::newRow("plain") << false << false;
    QTest::newRow("quiet") << true << false;
    QTest::newRow("with cancel callback") << false << true;
}

void tst_CommandRunner::cannotStart()
{
    QFETCH(bool, quiet);
    QFETCH(bool, withCancel);
    const QString missing = m_dir->filePath(QStringLiteral("missing/qemu-img"));
    std::function<bool()> cancel;
    if (withCancel)
        cancel = [] { return false; };

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    const CommandResult result = runCommand(missing, {QStringLiteral("info")},
                                            quiet ? RunFlags(Quiet) : RunFlags(), cancel);
    // The failure shows in the log only: the code is 0 and the texts are empty.
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output, QString());
    QCOMPARE(result.error, QString());
    QVERIFY2(timer.elapsed() < 5000, "a program that cannot start must not wait for the limit");
    QCOMPARE(log.contains(QtCriticalMsg, QStringLiteral("[VMTools] Can't run ") + missing), !quiet);
    QCOMPARE(log.contains(QtDebugMsg, QStringLiteral("[VMTools] Call: (\"info\")")), !quiet);
    QVERIFY2(log.contains(QtWarningMsg, QStringLiteral("[VMTools] 0  ")), qPrintable(log.dump()));
}

void tst_CommandRunner::exitCodes_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("stderrText");
    QTest::addColumn<bool>("quiet");
    QTest::addColumn<QStringList>("expectedLines");  // "level|text"
    QTest::addColumn<QStringList>("absentPrefixes");

    QTest::newRow("success")
            << 0 << "note\n" << false
            << QStringList{"debug|[VMTools] Call: (\"convert\", \"a b.vmdk\")",
                           "debug|[VMTools] Return code: 0"}
            << QStringList{"[VMTools] Output command:", "[VMTools] 0"};
    QTest::newRow("failure with standard error")
            << 2 << "  bad thing\n" << false
            << QStringList{"critical|[VMTools] Return code: 2",
                           "critical|[VMTools] Output command: bad thing",
                           "warning|[VMTools] 2   bad thing\n out\n"}
            << QStringList();
    QTest::newRow("failure without standard error")
            << 1 << "" << false
            << QStringList{"critical|[VMTools] Return code: 1", "warning|[VMTools] 1  out\n"}
            << QStringList{"[VMTools] Output command:"};
    QTest::newRow("blank standard error counts as none")
            << 1 << " \n\t" << false
            << QStringList{"critical|[VMTools] Return code: 1"}
            << QStringList{"[VMTools] Output command:"};
    QTest::newRow("quiet failure still warns")
            << 3 << "bad" << true
            << QStringList{"warning|[VMTools] 3 bad out\n"}
            << QStringList{"[VMTools] Call:", "[VMTools] Return code:", "[VMTools] Output command:"};
}

void tst_CommandRunner::exitCodes()
{
    QFETCH(int, exitCode);
    QFETCH(QString, stderrText);
    QFETCH(bool, quiet);
    QFETCH(QStringList, expectedLines);
    QFETCH(QStringList, absentPrefixes);
    m_tool->setRules(oneRule({{"stdout", "out\n"}, {"stderr", stderrText}, {"exit", exitCode}}));

    LogCapture log;
    const CommandResult result =
            runCommand(m_tool->path(), {QStringLiteral("convert"), QStringLiteral("a b.vmdk")},
                       quiet ? RunFlags(Quiet) : RunFlags());
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.output, QStringLiteral("out\n"));
    QCOMPARE(result.error, stderrText);

    const QHash<QString, QtMsgType> levels{{"debug", QtDebugMsg},
                                           {"warning", QtWarningMsg},
                                           {"critical", QtCriticalMsg}};
    for (const QString &expected : expectedLines) {
        const int bar = expected.indexOf(QLatin1Char('|'));
        QVERIFY2(log.contains(levels.value(expected.left(bar)), expected.mid(bar + 1)),
                 qPrintable(expected + QLatin1String("\n") + log.dump()));
    }
    for (const QString &prefix : absentPrefixes) {
        for (const LogCapture::Entry &entry : log.entries())
            QVERIFY2(!entry.text.startsWith(prefix), qPrintable(log.dump()));
    }
}

void tst_CommandRunner::utf8Output()
{
    const QString out = QStringLiteral("Größe ✓ 日本語\n");
    const QString err = QStringLiteral("ошибка €");
    m_tool->setRules(oneRule({{"stdout", out}, {"stderr", err}}));
    const CommandResult result = runCommand(m_tool->path(), {QStringLiteral("info")});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output, out);
    QCOMPARE(result.error, err);
}

void tst_CommandRunner::cancel()
{
    m_tool->setRules(oneRule({{"stdout", "partial"}, {"sleep_ms", 30000}}));
    int polls = 0;
    QElapsedTimer timer;
    timer.start();
    QList<qint64> pollTimes;

    LogCapture log;
    const CommandResult result =
            runCommand(m_tool->path(), {QStringLiteral("convert")}, {}, [&] {
                pollTimes.append(timer.elapsed());
                return ++polls == 3;
            });
    QCOMPARE(result.exitCode, -1);
    QCOMPARE(result.output, QString());
    QCOMPARE(result.error, QStringLiteral("canceled"));
    QCOMPARE(polls, 3);
    // Polled at once, then about once a second.
    QVERIFY2(pollTimes.at(1) >= 900 && pollTimes.at(1) < 3000, qPrintable(QString::number(pollTimes.at(1))));
    QVERIFY2(pollTimes.at(2) - pollTimes.at(1) >= 900, qPrintable(QString::number(pollTimes.at(2))));
    QVERIFY2(log.contains(QtWarningMsg, QStringLiteral("[VMTools] -1 canceled ")), qPrintable(log.dump()));
    QVERIFY(!log.containsPrefix(QtCriticalMsg, QStringLiteral("[VMTools] Can't run")));
    if (runningCopies(m_tool->path()) >= 0)
        QCOMPARE(runningCopies(m_tool->path()), 0);
}

void tst_CommandRunner::cancelCallbackPolledUntilFinished()
{
    m_tool->setRules(oneRule({{"stdout", "done"}, {"sleep_ms", 1500}}));
    int polls = 0;
    const CommandResult result =
            runCommand(m_tool->path(), {}, {}, [&polls] { return ++polls > 10; });
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output, QStringLiteral("done"));
    QVERIFY2(polls >= 2 && polls <= 3, qPrintable(QString::number(polls)));
}

void tst_CommandRunner::timeLimit_data()
{
    QTest::addColumn<int>("sleepMs");
    QTest::addColumn<int>("flags");
    QTest::addColumn<bool>("withCancel");
    QTest::addColumn<bool>("finishes");
    QTest::newRow("over the limit") << 20000 << 0 << false << false;
    QTest::newRow("over the limit, cancel callback") << 20000 << 0 << true << false;
    QTest::newRow("no limit") << 800 << int(NoTimeout) << false << true;
    QTest::newRow("no limit, cancel callback") << 800 << int(NoTimeout) << true << true;
}

void tst_CommandRunner::timeLimit()
{
    QFETCH(int, sleepMs);
    QFETCH(int, flags);
    QFETCH(bool, withCancel);
    QFETCH(bool, finishes);
    setDefaultCommandTimeoutForTesting(300);
    m_tool->setRules(oneRule({{"stdout", "slow"}, {"sleep_ms", sleepMs}, {"exit", 4}}));
    std::function<bool()> cancel;
    if (withCancel)
        cancel = [] { return false; };

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    const CommandResult result =
            runCommand(m_tool->path(), {QStringLiteral("resize")}, RunFlags(flags), cancel);
    const qint64 elapsed = timer.elapsed();
    const QString cantRun = QStringLiteral("[VMTools] Can't run ") + m_tool->path();
    QCOMPARE(log.contains(QtCriticalMsg, cantRun), !finishes);
    if (finishes) {
        QCOMPARE(result.exitCode, 4);
        QCOMPARE(result.output, QStringLiteral("slow"));
        QVERIFY(elapsed >= sleepMs);
    } else {
        // The tool never ended: no exit code, and it is killed with the process object.
        QCOMPARE(result.exitCode, 0);
        QVERIFY2(elapsed >= 250 && elapsed < 5000, qPrintable(QString::number(elapsed)));
        if (runningCopies(m_tool->path()) >= 0)
            QCOMPARE(runningCopies(m_tool->path()), 0);
    }
}

void tst_CommandRunner::concurrentCallersAreSerialised()
{
    constexpr int Callers = 8;
    constexpr int RunMs = 400;
    QJsonArray rules;
    for (int i = 0; i < Callers; ++i) {
        rules.append(QJsonObject{{"match", QJsonArray{QStringLiteral("id-%1").arg(i)}},
                                 {"stdout", QString::number(i)},
                                 {"sleep_ms", RunMs}});
    }
    m_tool->setRules({{"rules", rules}});

    QElapsedTimer clock;
    clock.start();
    QVector<CommandResult> results(Callers);
    std::vector<std::unique_ptr<QThread>> threads;
    const QString program = m_tool->path();
    for (int i = 0; i < Callers; ++i) {
        threads.emplace_back(QThread::create(
                [&, i] { results[i] = runCommand(program, {QStringLiteral("id-%1").arg(i)}); }));
        threads.back()->start();
    }
    bool allEnded = true;
    for (const auto &thread : threads)
        allEnded = thread->wait(60000) && allEnded;
    QVERIFY2(allEnded, "a caller is stuck");
    const qint64 elapsed = clock.elapsed();

    for (int i = 0; i < Callers; ++i) {
        QCOMPARE(results.at(i).exitCode, 0);
        QCOMPARE(results.at(i).output, QString::number(i));
    }
    // One at a time, the runs cannot take less than their sum; side by side they would take
    // little more than one.
    QVERIFY2(elapsed >= Callers * RunMs, qPrintable(QString::number(elapsed)));
}

void tst_CommandRunner::waitForProcessFinished_data()
{
    QTest::addColumn<bool>("onWorkerThread");
    QTest::addColumn<int>("sleepMs");
    QTest::addColumn<int>("limitMs");
    QTest::addColumn<bool>("finishes");
    for (bool worker : {false, true}) {
        const char *where = worker ? "worker thread" : "application thread";
        QTest::addRow("%s: ends in time", where) << worker << 100 << 5000 << true;
        QTest::addRow("%s: precise limit", where) << worker << 10000 << 400 << false;
        QTest::addRow("%s: coarse limit", where) << worker << 10000 << 2000 << false;
    }
}

void tst_CommandRunner::waitForProcessFinished()
{
    QFETCH(bool, onWorkerThread);
    QFETCH(int, sleepMs);
    QFETCH(int, limitMs);
    QFETCH(bool, finishes);
    m_tool->setRules(oneRule({{"sleep_ms", sleepMs}}));

    bool finished = !finishes;
    qint64 elapsed = -1;
    auto wait = [&] {
        QProcess process;
        process.start(m_tool->path(), QStringList());
        QElapsedTimer timer;
        timer.start();
        finished = ::waitForProcessFinished(process, limitMs);
        elapsed = timer.elapsed();
        process.kill();
        process.waitForFinished(5000);
    };
    if (onWorkerThread) {
        std::unique_ptr<QThread> thread(QThread::create(wait));
        thread->start();
        QVERIFY(thread->wait(30000));
    } else {
        wait();
    }
    QCOMPARE(finished, finishes);
    if (!finishes)
        // A coarse timer may fire up to 5 % early.
        QVERIFY2(elapsed >= limitMs * 95 / 100 - 20 && elapsed < limitMs + 1500, qPrintable(QString::number(elapsed)));

    // A process that is not running is not waited for.
    QProcess idle;
    QVERIFY(!::waitForProcessFinished(idle, 5000));
}

void tst_CommandRunner::waitForProcessEnd_data()
{
    QTest::addColumn<int>("sleepMs");  // -1: no process at all
    QTest::addColumn<int>("limitMs");
    QTest::addColumn<bool>("ends");
    QTest::addColumn<int>("minMs");
    QTest::addColumn<int>("maxMs");
    QTest::newRow("gone") << -1 << 1000 << true << 0 << 50;
    QTest::newRow("ends while polled") << 300 << 5000 << true << 100 << 2000;
    QTest::newRow("still running") << 60000 << 1000 << false << 1000 << 1600;
}

void tst_CommandRunner::waitForProcessEnd()
{
    QFETCH(int, sleepMs);
    QFETCH(int, limitMs);
    QFETCH(bool, ends);
    QFETCH(int, minMs);
    QFETCH(int, maxMs);
    m_tool->setRules(oneRule({{"sleep_ms", sleepMs}}));

    QProcess process;
    quint32 pid = 0;
    if (sleepMs >= 0) {
        process.start(m_tool->path(), QStringList());
        QVERIFY(process.waitForStarted(10000));
        pid = quint32(process.processId());
    } else {
        QProcess shortLived;
        shortLived.start(m_tool->path(), QStringList());
        QVERIFY(shortLived.waitForStarted(10000));
        pid = quint32(shortLived.processId());
        QVERIFY(shortLived.waitForFinished(10000));
    }

    LogCapture log;
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(::waitForProcessEnd(pid, limitMs), ends);
    const qint64 elapsed = timer.elapsed();
    QVERIFY2(elapsed >= minMs && elapsed <= maxMs, qPrintable(QString::number(elapsed)));
    QCOMPARE(log.contains(QtWarningMsg, QStringLiteral("[VMTools] Timeout waiting for process end Pid = %1").arg(pid)),
             !ends);
    process.kill();
    process.waitForFinished(5000);
}

QTEST_GUILESS_MAIN(tst_CommandRunner)
#include "tst_commandrunner.moc"
