// OVA extraction against GNU tar on an archive of about 1 GiB (members of 700 MiB, 300 MiB
// and a small descriptor), and the peak memory of an extraction.
//
// Each extraction runs in a fresh child process (this program with --extract), so its peak
// RSS is its own and not the generator's, and both sides pay for one process start.
// QV_BENCH_OVA_MIB scales the two big members (default 1024 MiB in total).
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

// Pseudo-random blocks, cheap to make: one random MiB, stamped per block so no two
// blocks of a member are alike.
bool writeMember(const QString &path, qint64 size, quint64 seed)
{
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

// Settles the dirty pages of the previous run so that each run starts from the same state.
void settle(const QString &dir)
{
    QDir(dir).removeRecursively();
    run(QStringLiteral("sync"), {});
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

    const qint64 totalMiB = qEnvironmentVariableIsSet("QV_BENCH_OVA_MIB")
        ? qMax(2, qEnvironmentVariableIntValue("QV_BENCH_OVA_MIB")) : 1024;
    QTemporaryDir work(QDir::tempPath() + QLatin1String("/bench_ova-XXXXXX"));
    const QString source = work.filePath(QStringLiteral("source"));
    const QString archive = work.filePath(QStringLiteral("image.ova"));
    QDir().mkpath(source);
    const QStringList members{QStringLiteral("box.ovf"), QStringLiteral("system.vmdk"), QStringLiteral("data.vmdk")};
    if (!writeMember(source + QLatin1String("/box.ovf"), 2345, 1)
        || !writeMember(source + QLatin1String("/system.vmdk"), totalMiB * 700 / 1024 * MiB, 2)
        || !writeMember(source + QLatin1String("/data.vmdk"), (totalMiB - totalMiB * 700 / 1024) * MiB + 1234, 3)
        || !run(QStringLiteral("tar"), QStringList{QStringLiteral("--format=ustar"), QStringLiteral("-cf"), archive,
                                                   QStringLiteral("-C"), source} + members)) {
        std::fprintf(stderr, "bench_ova: cannot make the archive in %s\n", qPrintable(work.path()));
        return 1;
    }
    QDir(source).removeRecursively();

    const QString ours = work.filePath(QStringLiteral("ours"));
    const QString theirs = work.filePath(QStringLiteral("tar"));
    // Warm-up of both, and a check that both produced the same files.
    settle(ours);
    const Run warm = extractWithOurs(archive, ours);
    settle(theirs);
    if (warm.ms < 0 || extractWithTar(archive, theirs) < 0) {
        std::fprintf(stderr, "bench_ova: an extraction failed\n");
        return 1;
    }
    for (const QString &member : members) {
        if (!sameFiles(ours + QLatin1Char('/') + member, theirs + QLatin1Char('/') + member)) {
            std::fprintf(stderr, "bench_ova: %s differs from GNU tar's\n", qPrintable(member));
            return 1;
        }
    }

    double bestOurs = -1, bestTar = -1, peak = warm.peakMiB;
    for (int round = 0; round < 3; ++round) {
        settle(ours);
        settle(theirs);
        const Run r = extractWithOurs(archive, ours);
        settle(ours);
        const double t = extractWithTar(archive, theirs);
        if (r.ms < 0 || t < 0) {
            std::fprintf(stderr, "bench_ova: an extraction failed\n");
            return 1;
        }
        bestOurs = bestOurs < 0 ? r.ms : qMin(bestOurs, r.ms);
        bestTar = bestTar < 0 ? t : qMin(bestTar, t);
        peak = qMax(peak, r.peakMiB);
    }
    settle(ours);
    settle(theirs);

    Bench::reportRatio(QStringLiteral("ova extract vs GNU tar"), bestOurs, bestTar, QStringLiteral("ms"), 1.1);
    Bench::reportAbsolute(QStringLiteral("ova extract peak RSS"), peak, QStringLiteral("MiB"), 32);
    return 0;
}
