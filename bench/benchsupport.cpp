#include "benchsupport.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTextStream>

#include <cstdio>

namespace Bench {

double timeMs(const std::function<void()> &fn)
{
    QElapsedTimer timer;
    timer.start();
    fn();
    return timer.nsecsElapsed() / 1e6;
}

double bestOfMs(int n, const std::function<void()> &fn)
{
    double best = -1;
    for (int i = 0; i < n; ++i) {
        const double t = timeMs(fn);
        if (best < 0 || t < best)
            best = t;
    }
    return best;
}

double peakRssMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return -1;
}

double runProgramMs(const QString &program, const QStringList &args, const QString &workDir)
{
    QProcess process;
    if (!workDir.isEmpty())
        process.setWorkingDirectory(workDir);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QElapsedTimer timer;
    timer.start();
    process.start(program, args);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit
        || process.exitCode() != 0)
        return -1;
    return timer.nsecsElapsed() / 1e6;
}

static void row(const QString &name, const QString &figure, const QString &reference,
                const QString &ratio, const QString &goal, bool ok)
{
    std::printf("BENCH %s | %s | %s | %s | %s | %s\n", qPrintable(name), qPrintable(figure),
                qPrintable(reference), qPrintable(ratio), qPrintable(goal), ok ? "ok" : "MISSED");
    std::fflush(stdout);
}

void reportRatio(const QString &name, double figure, double reference, const QString &unit, double goalRatio)
{
    const double ratio = reference > 0 ? figure / reference : 0;
    const bool ok = goalRatio <= 0 || ratio <= goalRatio;
    row(name, QStringLiteral("%1 %2").arg(figure, 0, 'f', 2).arg(unit),
        QStringLiteral("%1 %2").arg(reference, 0, 'f', 2).arg(unit),
        QString::number(ratio, 'f', 3),
        goalRatio > 0 ? QStringLiteral("<= %1").arg(goalRatio) : QStringLiteral("-"), ok);
}

void reportAbsolute(const QString &name, double figure, const QString &unit, double goal)
{
    row(name, QStringLiteral("%1 %2").arg(figure, 0, 'f', 2).arg(unit), QStringLiteral("-"),
        QStringLiteral("-"), QStringLiteral("< %1 %2").arg(goal).arg(unit), figure < goal);
}

} // namespace Bench
