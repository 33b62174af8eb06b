// OVA extraction of an archive holding a 1 GiB member (and a small descriptor) against GNU
// tar extracting the same archive and `cp --reflink=never` copying the same bytes, and the
// peak memory of an extraction.
//
// Each extraction runs in a fresh child process (this program with --extract), so its peak
// RSS is its own and not the generator's, and every side pays for one process start. The
// three alternate round by round and each figure is the median of the rounds, since timings
// on a shared machine swing widely from one run to the next; the spread of the per-round
// ratios is printed beside them. QV_BENCH_OVA_MIB sets the member's size (default 1024),
// QV_BENCH_OVA_ROUNDS the rounds (default 7, at least 5).
#include "benchsupport.h"
#include "ovaextractor.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdio>
#include <vector>

namespace {

constexpr qint64 MiB = 1024 * 1024;

bool run(const QString &program, const QStringList &args, QByteArray *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, args);
    const bool ok = process.waitForFinished(30 * 60 * 1000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
    if (output)
        *output = process.readAllStandardOutput();
    return ok;
}

struct Run
{
    double ms = -1;
    double peakMiB = -1;
};

Run extractWithOurs(const QString &archive, const QString &dest)
{
    QByteArray output;
    QElapsedTimer timer;
    timer.start();
    if (!run(QCoreApplication::applicationFilePath(), {QStringLiteral("--extract"), archive, dest}, &output))
        return {};
    const double ms = timer.nsecsElapsed() / 1e6;
    return {ms, output.trimmed().toDouble()};
}

double extractWithTar(const QString &archive, const QString &dest)
{
    if (!QDir().mkpath(dest))
        return -1;
    return Bench::runProgramMs(QStringLiteral("tar"), {QStringLiteral("-xf"), archive, QStringLiteral("-C"), dest});
}

bool sameFiles(const QString &a, const QString &b)
{
    QFile fa(a), fb(b);
    if (!fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly) || fa.size() != fb.size())
        return false;
    while (!fa.atEnd()) {
        if (fa.read(MiB) != fb.read(MiB))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() == 4 && args.at(1) == QLatin1String("--extract")) {
        const int result = extractOva(args.at(2), args.at(3));
        std::printf("%.2f\n", Bench::peakRssMiB());
        return result;
    }

    const qint64 memberMiB = qEnvironmentVariableIsSet("QV_BENCH_OVA_MIB")
        ? qMax(2, qEnvironmentVariableIntValue("QV_BENCH_OVA_MIB")) : 1024;
    const int rounds = qEnvironmentVariableIsSet("QV_BENCH_OVA_ROUNDS")
        ? qMax(5, qEnvironmentVariableIntValue("QV_BENCH_OVA_ROUNDS")) : 7;
    QTemporaryDir work(QDir::tempPath() + QLatin1String("/bench_ova-XXXXXX"));
    const QString source = work.filePath(QStringLiteral("source"));
    const QString archive = work.filePath(QStringLiteral("image.ova"));
    QDir().mkpath(source);
    const QStringList members{QStringLiteral("box.ovf"), QStringLiteral("system.vmdk")};
    const QString member = source + QLatin1String("/system.vmdk");
    if (!Bench::writePseudoRandom(source + QLatin1String("/box.ovf"), 2345, 1) || !Bench::writePseudoRandom(member, memberMiB * MiB, 2)
        || !run(QStringLiteral("tar"), QStringList{QStringLiteral("--format=ustar"), QStringLiteral("-cf"), archive,
                                                   QStringLiteral("-C"), source} + members)) {
        std::fprintf(stderr, "bench_ova: cannot make the archive in %s\n", qPrintable(work.path()));
        return 1;
    }

    const QString ours = work.filePath(QStringLiteral("ours"));
    const QString theirs = work.filePath(QStringLiteral("tar"));
    const QString copied = work.filePath(QStringLiteral("cp"));
    const auto copyWithCp = [&] {
        if (!QDir().mkpath(copied))
            return -1.0;
        return Bench::runProgramMs(QStringLiteral("cp"), {QStringLiteral("--reflink=never"), member, copied});
    };
    // Warm-up of all three, and a check that both extractions produced the same files.
    Bench::settle(ours);
    const Run warm = extractWithOurs(archive, ours);
    Bench::settle(theirs);
    Bench::settle(copied);
    if (warm.ms < 0 || extractWithTar(archive, theirs) < 0 || copyWithCp() < 0) {
        std::fprintf(stderr, "bench_ova: an extraction or the copy failed\n");
        return 1;
    }
    for (const QString &name : members) {
        if (!sameFiles(ours + QLatin1Char('/') + name, theirs + QLatin1Char('/') + name)) {
            std::fprintf(stderr, "bench_ova: %s differs from GNU tar's\n", qPrintable(name));
            return 1;
        }
    }

    std::vector<double> oursMs, tarMs, cpMs, vsTar, vsCp;
    double peak = warm.peakMiB;
    for (int round = 0; round < rounds; ++round) {
        // Each side goes first in turn, so none always follows the same neighbour's writeback.
        Run r;
        double t = -1, c = -1;
        for (int turn = 0; turn < 3; ++turn) {
            Bench::settle(ours);
            Bench::settle(theirs);
            Bench::settle(copied);
            switch ((round + turn) % 3) {
            case 0: r = extractWithOurs(archive, ours); break;
            case 1: t = extractWithTar(archive, theirs); break;
            default: c = copyWithCp(); break;
            }
        }
        if (r.ms < 0 || t < 0 || c < 0) {
            std::fprintf(stderr, "bench_ova: an extraction or the copy failed\n");
            return 1;
        }
        oursMs.push_back(r.ms);
        tarMs.push_back(t);
        cpMs.push_back(c);
        vsTar.push_back(r.ms / t);
        vsCp.push_back(r.ms / c);
        peak = qMax(peak, r.peakMiB);
    }
    Bench::settle(ours);
    Bench::settle(theirs);
    Bench::settle(copied);

    const QString size = QStringLiteral("%1 MiB member, median of %2").arg(memberMiB).arg(rounds);
    Bench::reportRatio(QStringLiteral("ova extract vs GNU tar (%1; %2)").arg(size, Bench::spread(vsTar)),
                       Bench::median(oursMs), Bench::median(tarMs), QStringLiteral("ms"), 0.5);
    Bench::reportRatio(QStringLiteral("ova extract vs cp --reflink=never (%1; %2)").arg(size, Bench::spread(vsCp)),
                       Bench::median(oursMs), Bench::median(cpMs), QStringLiteral("ms"), 1.5);
    Bench::reportAbsolute(QStringLiteral("ova extract peak RSS (VmHWM)"), peak, QStringLiteral("MiB"), 16);
    return 0;
}
