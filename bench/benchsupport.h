#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

// Every benchmark prints rows of one shape, so bench/run can gather them into one table:
// BENCH <name> | <figure> | <reference> | <ratio> | <goal> | <verdict>
namespace Bench {

// Wall-clock milliseconds of one call.
double timeMs(const std::function<void()> &fn);
// Best of n runs, in milliseconds.
double bestOfMs(int n, const std::function<void()> &fn);
// Peak resident set size of this process so far, in MiB (VmHWM on Linux).
double peakRssMiB();
// Runs a program and waits for it; returns its wall-clock milliseconds, or -1 on failure.
double runProgramMs(const QString &program, const QStringList &args, const QString &workDir = QString());

// Writes `size` bytes of pseudo-random data, cheap to make and unlike any other seed's.
bool writePseudoRandom(const QString &path, qint64 size, quint64 seed);
// Empties a scratch folder and flushes the dirty pages, so each timed run starts alike.
void settle(const QString &dir);
double median(std::vector<double> values);
// "per-round ratios A to B": how far repeated rounds drift on a shared machine.
QString spread(const std::vector<double> &ratios);

// ratio = figure / reference; ok when ratio <= goalRatio (pass goalRatio <= 0 for "no ratio goal").
void reportRatio(const QString &name, double figure, double reference, const QString &unit, double goalRatio);
// An absolute figure against an absolute goal (lower is better).
void reportAbsolute(const QString &name, double figure, const QString &unit, double goal);

} // namespace Bench
