#include "fakeprogram.h"
#include "logcapture.h"
#include "processutils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#ifdef Q_OS_UNIX
#include <csignal>
#endif
#ifdef Q_OS_LINUX
#include <spawn.h>
#include <sys/wait.h>
extern char **environ;
#endif

namespace {

QString vm(const QString &text, quint32 pid)
{
    return QStringLiteral("[VMTools] %1 %2").arg(text).arg(pid);
}

QString programFileName(const QString &name)
{
#ifdef Q_OS_WIN
    return name + QLatin1String(".exe");
#else
    return name;
#endif
}

// A pid with no process behind it, searched downwards from the top of the pid range.
quint32 unusedPid()
{
#ifdef Q_OS_LINUX
    QFile file(QStringLiteral("/proc/sys/kernel/pid_max"));
    quint32 pid = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toUInt() : 32768;
    while (--pid > 1) {
        if (!QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)))
            return pid;
    }
    return 0;
#else
    return 0xFFFFFFF0u;  // process ids are multiples of four on Windows
#endif
}

} // namespace

class tst_ProcessUtils : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void liveProcess();
    void detachedProcessIsDestroyed();
    void endedProcess_data();
    void endedProcess();
    void noSuchProcess_data();
    void noSuchProcess();

private:
    QScopedPointer<QTemporaryDir> m_dir;
    QScopedPointer<FakeProgram> m_qemu;
};

void tst_ProcessUtils::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_qemu.reset(new FakeProgram(m_dir->filePath(QStringLiteral("bin")),
                                 QStringLiteral("qemu-system-x86_64")));
    QVERIFY(m_qemu->isValid());
    m_qemu->setRules({{"rules", QJsonArray{QJsonObject{{"match", QJsonArray{"sleep"}},
                                                       {"sleep_ms", 60000}}}}});
}

void tst_ProcessUtils::liveProcess()
{
    QProcess process;
    process.start(m_qemu->path(), {QStringLiteral("sleep")});
    QVERIFY(process.waitForStarted(10000));
    const quint32 pid = quint32(process.processId());

    LogCapture log;
    QVERIFY(isRunning(pid));
    QCOMPARE(processNameByPid(pid), programFileName(QStringLiteral("qemu-system-x86_64")));

    QElapsedTimer timer;
    timer.start();
    QVERIFY2(destroyProcess(pid), qPrintable(log.dump()));
    QVERIFY(timer.elapsed() < 1500);
    QVERIFY(!isRunning(pid));
    QVERIFY2(log.lines(QtCriticalMsg).isEmpty(), qPrintable(log.dump()));
    QVERIFY(process.waitForFinished(5000));
    QCOMPARE(process.exitStatus(), QProcess::CrashExit);
}

// QEMU runs detached, so the pid read back from its lock file is never a child of ours.
void tst_ProcessUtils::detachedProcessIsDestroyed()
{
    qint64 pid = 0;
    QVERIFY(QProcess::startDetached(m_qemu->path(), {QStringLiteral("sleep")}, QString(), &pid));
    QVERIFY(pid > 0);
    QVERIFY(isRunning(quint32(pid)));

    const auto cleanup = qScopeGuard([pid] {
#ifdef Q_OS_UNIX
        ::kill(pid_t(pid), SIGKILL);
#endif
    });

    LogCapture log;
    QVERIFY2(destroyProcess(quint32(pid)), qPrintable(log.dump()));
    QVERIFY(!isRunning(quint32(pid)));
}

void tst_ProcessUtils::endedProcess_data()
{
    QTest::addColumn<bool>("reaped");
    QTest::newRow("reaped") << true;
    QTest::newRow("zombie, not reaped") << false;
}

void tst_ProcessUtils::endedProcess()
{
#ifndef Q_OS_LINUX
    QSKIP("Needs fork semantics to keep an ended child unreaped");
#else
    QFETCH(bool, reaped);
    // Spawned directly, so nothing reaps the child behind the test's back.
    QByteArray path = QFile::encodeName(m_qemu->path());
    char *argv[] = {path.data(), nullptr};
    pid_t child = 0;
    QCOMPARE(posix_spawn(&child, path.constData(), nullptr, nullptr, argv, environ), 0);
    const auto reap = qScopeGuard([child] { ::waitpid(child, nullptr, 0); });
    const quint32 pid = quint32(child);

    const QString stat = QStringLiteral("/proc/%1/stat").arg(pid);
    QElapsedTimer timer;
    timer.start();
    if (reaped) {
        int status = -1;
        QCOMPARE(::waitpid(child, &status, 0), child);
        QVERIFY(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    } else {
        auto state = [&stat] {
            QFile file(stat);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        while (!state().contains(") Z ") && timer.elapsed() < 10000)
            QThread::msleep(10);
        QVERIFY(state().contains(") Z "));
    }

    LogCapture log;
    QVERIFY(!isRunning(pid));
    const QString openFailure = vm(QStringLiteral("Failed to open process with Pid ="), pid);
    // A zombie still has its entry, so only the reaped one fails to open.
    QCOMPARE(log.contains(QtDebugMsg, openFailure), reaped);
    if (!reaped) {
        // Its image is gone with its memory; there is no name to give.
        QCOMPARE(processNameByPid(pid), QString());
        QVERIFY2(log.contains(QtCriticalMsg,
                              vm(QStringLiteral("Failed to get process name for Pid ="), pid)),
                 qPrintable(log.dump()));
    }
#endif
}

void tst_ProcessUtils::noSuchProcess_data()
{
    QTest::addColumn<quint32>("pid");
    QTest::newRow("pid 0") << 0u;
    QTest::newRow("unused pid") << unusedPid();
    // Read as a signed pid this is -1, "every process we may signal".
    QTest::newRow("all bits set") << 0xFFFFFFFFu;
}

void tst_ProcessUtils::noSuchProcess()
{
    QFETCH(quint32, pid);
    const QString openFailure = vm(QStringLiteral("Failed to open process with Pid ="), pid);

    LogCapture log;
    QVERIFY(!isRunning(pid));
    QVERIFY2(log.contains(QtDebugMsg, openFailure), qPrintable(log.dump()));
    QVERIFY(log.lines(QtCriticalMsg).isEmpty());

    log.clear();
    QVERIFY(!destroyProcess(pid));
    QVERIFY2(log.contains(QtCriticalMsg, openFailure), qPrintable(log.dump()));
    QCOMPARE(log.lines(QtCriticalMsg).size(), 1);

    log.clear();
    QCOMPARE(processNameByPid(pid), QString());
    QVERIFY2(log.contains(QtCriticalMsg, openFailure), qPrintable(log.dump()));
    QCOMPARE(log.lines(QtCriticalMsg).size(), 1);
}

QTEST_GUILESS_MAIN(tst_ProcessUtils)
#include "tst_processutils.moc"
