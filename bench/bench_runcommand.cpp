// What the external command runner adds to a tool run (serialisation lock, time-out
// handling, output capture and decoding, logging) against QProcess running the same program.

#include "benchsupport.h"

#include "commandrunner.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

#include <cstdio>

namespace {
constexpr int Runs = 100;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const QString program = QStandardPaths::findExecutable(QStringLiteral("true"));
    if (program.isEmpty()) {
        std::fprintf(stderr, "bench_runcommand: no 'true' program on PATH\n");
        return 1;
    }

    bool ok = runCommand(program, {}).exitCode == 0;  // warm-up: loads and caches the program
    const double direct = Bench::bestOfMs(3, [&] {
        for (int i = 0; i < Runs; ++i) {
            QProcess process;
            process.start(program, QStringList());
            ok = process.waitForFinished(30000) && process.exitCode() == 0 && ok;
            process.readAllStandardOutput();
            process.readAllStandardError();
        }
    });
    const double runner = Bench::bestOfMs(3, [&] {
        for (int i = 0; i < Runs; ++i)
            ok = runCommand(program, {}).exitCode == 0 && ok;
    });
    // Off the application's thread the runner waits without an event loop.
    double worker = 0;
    QThread *thread = QThread::create([&] {
        worker = Bench::bestOfMs(3, [&] {
            for (int i = 0; i < Runs; ++i)
                ok = runCommand(program, {}).exitCode == 0 && ok;
        });
    });
    thread->start();
    thread->wait();
    delete thread;
    if (!ok) {
        std::fprintf(stderr, "bench_runcommand: a run of %s failed\n", qPrintable(program));
        return 1;
    }
    // On the application's thread the runner waits in a nested event loop so that the host's
    // window keeps painting; the looser goal leaves room for that loop.
    Bench::reportRatio(QStringLiteral("runCommand of 'true' on the app thread vs QProcess"), runner / Runs,
                       direct / Runs, QStringLiteral("ms"), 3);
    Bench::reportRatio(QStringLiteral("runCommand of 'true' on a worker thread vs QProcess"), worker / Runs,
                       direct / Runs, QStringLiteral("ms"), 1.5);
    return 0;
}
