// Copying a 1 GiB disk file with the engine's copy against cp on the same file system.
// A reflink or an in-kernel copy may make ours far faster than the reference; that is fine.

#include "benchsupport.h"

#include "qemuengine.h"

#include <QCoreApplication>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>

namespace {

constexpr qint64 FileSize = qint64(1) << 30;
constexpr int Runs = 4;

// Incompressible content throughout, so no file system can skip any of it.
bool writeDiskFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray block(1 << 20, Qt::Uninitialized);
    auto *words = reinterpret_cast<quint32 *>(block.data());
    QRandomGenerator random(20241122);
    for (qint64 written = 0; written < FileSize; written += block.size()) {
        random.fillRange(words, block.size() / int(sizeof(quint32)));
        if (file.write(block) != block.size())
            return false;
    }
    return file.flush();
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // The copies go next to the build, on the disk the devices would live on, not in a tmpfs.
    QTemporaryDir work(QCoreApplication::applicationDirPath() + QStringLiteral("/bench_copyfile-XXXXXX"));
    QTemporaryDir home;
    if (!work.isValid() || !home.isValid())
        return 1;
    qputenv("QV_HOME", home.path().toUtf8());
    const QString source = work.filePath(QStringLiteral("data.qcow2"));
    const QString target = work.filePath(QStringLiteral("copy.qcow2"));
    if (!writeDiskFile(source)) {
        std::fprintf(stderr, "bench_copyfile: cannot write %s\n", qPrintable(source));
        return 1;
    }
    QEMUEngine engine;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    // Runs alternate, so write-back of an earlier copy weighs on both sides alike.
    bool ok = true;
    double ours = -1, reference = -1, plain = -1;
    auto keepBest = [](double &best, double ms) { best = best < 0 || ms < best ? ms : best; };
    for (int i = 0; i < Runs && ok; ++i) {
        QFile::remove(target);
        keepBest(ours, Bench::timeMs([&] { ok = engine.copyFile(source, target); }));
        ok = ok && QFile(target).size() == FileSize;
        QFile::remove(target);
        const double ms = Bench::runProgramMs(QStringLiteral("cp"), {source, target});
        ok = ok && ms >= 0;
        keepBest(reference, ms);
        QFile::remove(target);
        keepBest(plain, Bench::timeMs([&] { ok = QFile::copy(source, target) && ok; }));
    }
    if (!ok) {
        std::fprintf(stderr, "bench_copyfile: a copy failed\n");
        return 1;
    }
    Bench::reportRatio(QStringLiteral("copyFile 1 GiB vs cp"), ours, reference, QStringLiteral("ms"), 1.2);
    Bench::reportRatio(QStringLiteral("copyFile 1 GiB vs QFile::copy"), ours, plain, QStringLiteral("ms"), 0);
    return 0;
}
