// The first device of an image: extraction, conversion of the reference disks and the
// device's own disks, against the same work done by hand with GNU tar and qemu-img.
//
// The image's system disk is 2 GiB with 1 GiB of random data, as a stream-optimised VMDK.
// Each library run is a fresh child process (this program with --create) on a fresh home, so
// nothing is converted already; the two sides alternate round by round and each figure is the
// median of the rounds. QV_BENCH_FIRST_MIB sets the data's size (default 1024, disk twice
// that), QV_BENCH_FIRST_ROUNDS the rounds (default 5, at least 3).
#include "benchsupport.h"

#include "fixtures.h"
#include "hostdirectories.h"
#include "qemuengine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>

#include <cstdio>
#include <vector>

namespace {

constexpr qint64 MiB = 1024 * 1024;
const QString OsVersion = QStringLiteral("11.0.0");

int createFirstDevice(const QString &home, const QString &archive, const QString &qemuImg)
{
    qputenv("QV_HOME", home.toUtf8());
    qputenv("QV_QEMU_BIN_DIR", QFileInfo(qemuImg).absolutePath().toUtf8());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QEMUEngine engine;
    QDir().mkpath(engine.devicesDirectory().absolutePath());
    const OsImage image = testImage(QUrl::fromLocalFile(archive).toString(), OsVersion);
    return engine.createDevice(QStringLiteral("first"), image, testProfile());
}

// What a user would type to get the same disks: unpack, convert both reference disks, put an
// overlay on the system disk and copy the data disk.
const char *const ByHand = R"(set -e
tar -xf "$1" -C "$2"
cd "$2"
qemu-img convert -f vmdk -O qcow2 system.vmdk system.qcow2
qemu-img convert -f vmdk -O qcow2 data.vmdk data.qcow2
qemu-img create -q -f qcow2 -F qcow2 -b "$2/system.qcow2" device-system.qcow2
cp --reflink=never data.qcow2 device-data.qcow2
)";

bool makeArchive(const QString &qemuImg, const QString &work, qint64 dataMiB, QString *archive)
{
    const QString raw = work + QStringLiteral("/system.raw");
    QFile rawFile(raw);
    if (!Bench::writePseudoRandom(raw, dataMiB * MiB, 3) || !rawFile.resize(2 * dataMiB * MiB))
        return false;
    *archive = work + QStringLiteral("/image.ova");
    QFile ovf(work + QStringLiteral("/image.ovf"));
    return Bench::runProgramMs(qemuImg, {QStringLiteral("convert"), QStringLiteral("-f"), QStringLiteral("raw"),
                                         QStringLiteral("-O"), QStringLiteral("vmdk"), QStringLiteral("-o"),
                                         QStringLiteral("subformat=streamOptimized"), raw,
                                         work + QStringLiteral("/system.vmdk")}) >= 0
        && Bench::runProgramMs(qemuImg, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                                         QStringLiteral("vmdk"), QStringLiteral("-o"),
                                         QStringLiteral("subformat=streamOptimized"),
                                         work + QStringLiteral("/data.vmdk"), QStringLiteral("64M")}) >= 0
        && ovf.open(QIODevice::WriteOnly) && ovf.write("<Envelope/>\n") > 0 && (ovf.close(), true)
        && QFile::remove(raw)
        && Bench::runProgramMs(QStringLiteral("tar"), {QStringLiteral("-cf"), *archive, QStringLiteral("-C"), work,
                                                       QStringLiteral("image.ovf"), QStringLiteral("system.vmdk"),
                                                       QStringLiteral("data.vmdk")}) >= 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString qemuImg = QStandardPaths::findExecutable(QStringLiteral("qemu-img"));
    const QStringList args = app.arguments();
    if (args.size() == 4 && args.at(1) == QLatin1String("--create"))
        return createFirstDevice(args.at(2), args.at(3), qemuImg);
    if (qemuImg.isEmpty()) {
        std::fprintf(stderr, "bench_firstdevice: qemu-img is not installed\n");
        return 1;
    }
    const qint64 dataMiB = qEnvironmentVariableIsSet("QV_BENCH_FIRST_MIB")
        ? qMax(16, qEnvironmentVariableIntValue("QV_BENCH_FIRST_MIB")) : 1024;
    const int rounds = qEnvironmentVariableIsSet("QV_BENCH_FIRST_ROUNDS")
        ? qMax(3, qEnvironmentVariableIntValue("QV_BENCH_FIRST_ROUNDS")) : 5;
    QTemporaryDir work(QDir::tempPath() + QLatin1String("/bench_firstdevice-XXXXXX"));
    QString archive;
    if (!work.isValid() || !makeArchive(qemuImg, work.path(), dataMiB, &archive)) {
        std::fprintf(stderr, "bench_firstdevice: cannot make the image in %s\n", qPrintable(work.path()));
        return 1;
    }
    const QString ours = work.filePath(QStringLiteral("home"));
    const QString theirs = work.filePath(QStringLiteral("by-hand"));
    const auto library = [&] {
        QDir().mkpath(ours);
        return Bench::runProgramMs(QCoreApplication::applicationFilePath(), {QStringLiteral("--create"), ours, archive});
    };
    const auto byHand = [&] {
        QDir().mkpath(theirs);
        return Bench::runProgramMs(QStringLiteral("bash"), {QStringLiteral("-c"), QString::fromLatin1(ByHand),
                                                            QStringLiteral("by-hand"), archive, theirs});
    };

    std::vector<double> oursMs, handMs, ratios;
    for (int round = 0; round < rounds; ++round) {
        double o = -1, h = -1;
        for (int turn = 0; turn < 2; ++turn) {
            Bench::settle(ours);
            Bench::settle(theirs);
            ((round + turn) % 2 ? h : o) = (round + turn) % 2 ? byHand() : library();
        }
        if (o < 0 || h < 0) {
            std::fprintf(stderr, "bench_firstdevice: %s failed\n", o < 0 ? "createDevice" : "the work by hand");
            return 1;
        }
        oursMs.push_back(o);
        handMs.push_back(h);
        ratios.push_back(o / h);
    }
    Bench::settle(ours);
    Bench::settle(theirs);
    Bench::reportRatio(QStringLiteral("first device of a %1 MiB image (%2 MiB random) vs tar + qemu-img by hand "
                                      "(median of %3; %4)")
                           .arg(2 * dataMiB).arg(dataMiB).arg(rounds).arg(Bench::spread(ratios)),
                       Bench::median(oursMs), Bench::median(handMs), QStringLiteral("ms"), 1.25);
    return 0;
}
