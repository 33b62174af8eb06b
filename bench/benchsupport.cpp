#include "benchsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTextStream>

#include <algorithm>
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

bool writePseudoRandom(const QString &path, qint64 size, quint64 seed)
{
    // One xorshift MiB, stamped per block so no two blocks of a file are alike.
    constexpr qint64 MiB = 1024 * 1024;
    std::vector<quint64> block(MiB / sizeof(quint64));
    quint64 x = seed * 0x9E3779B97F4A7C15ull + 1;
    for (quint64 &word : block) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        word = x;
    }
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    for (qint64 written = 0, index = 0; written < size; ++index) {
        block[0] = quint64(index) ^ seed;
        const qint64 n = qMin(MiB, size - written);
        if (file.write(reinterpret_cast<const char *>(block.data()), n) != n)
            return false;
        written += n;
    }
    return file.flush();
}

void settle(const QString &dir)
{
    QDir(dir).removeRecursively();
    runProgramMs(QStringLiteral("sync"), {});
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? -1 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

QString spread(const std::vector<double> &ratios)
{
    if (ratios.empty())
        return QStringLiteral("no rounds");
    const auto range = std::minmax_element(ratios.begin(), ratios.end());
    return QStringLiteral("per-round ratios %1 to %2").arg(*range.first, 0, 'f', 2).arg(*range.second, 0, 'f', 2);
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
