// Creating 20 devices of one image: the first converts the image's disks, the others only
// make an overlay and copy the data disk, and must convert nothing again.

#include "benchsupport.h"

#include "fixtures.h"
#include "hostdirectories.h"
#include "qemuengine.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>

#include <cstdio>

namespace {

constexpr int DeviceCount = 20;

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString qemuImg = QStandardPaths::findExecutable(QStringLiteral("qemu-img"));
    if (qemuImg.isEmpty()) {
        std::fprintf(stderr, "bench_deploy: qemu-img is not installed\n");
        return 1;
    }
    QTemporaryDir home(QCoreApplication::applicationDirPath() + QStringLiteral("/bench_deploy-XXXXXX"));
    if (!home.isValid())
        return 1;
    qputenv("QV_HOME", home.path().toUtf8());
    qputenv("QV_QEMU_BIN_DIR", QFileInfo(qemuImg).absolutePath().toUtf8());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    QString ova;
    if (!makeOva(qemuImg, home.path(), &ova)) {
        std::fprintf(stderr, "bench_deploy: cannot build the archive\n");
        return 1;
    }
    const OsImage image = testImage(QUrl::fromLocalFile(ova).toString());
    const HwProfile profile = testProfile(256, 1, 16);
    QEMUEngine engine;
    QDir().mkpath(engine.devicesDirectory().absolutePath());

    bool ok = true;
    const double first = Bench::timeMs([&] { ok = engine.createDevice(QStringLiteral("device-0"), image, profile) == 0; });
    const QDir reference(systemImageDirectory(image.osVersion, image.imageVersion));
    const QStringList disks = {reference.absoluteFilePath(QStringLiteral("system.qcow2")),
                               reference.absoluteFilePath(QStringLiteral("data.qcow2"))};
    QList<qint64> converted;
    for (const QString &disk : disks)
        converted.append(QFileInfo(disk).lastModified().toMSecsSinceEpoch());

    double rest = 0;
    for (int i = 1; i < DeviceCount && ok; ++i) {
        rest += Bench::timeMs([&] {
            ok = engine.createDevice(QStringLiteral("device-%1").arg(i), image, profile) == 0;
        });
    }
    if (!ok) {
        std::fprintf(stderr, "bench_deploy: a device could not be created\n");
        return 1;
    }
    for (int i = 0; i < disks.size(); ++i) {
        if (QFileInfo(disks.at(i)).lastModified().toMSecsSinceEpoch() != converted.at(i)) {
            std::fprintf(stderr, "bench_deploy: %s was converted again\n", qPrintable(disks.at(i)));
            return 1;
        }
    }
    const double mean = rest / (DeviceCount - 1);
    Bench::reportRatio(QStringLiteral("createDevice, later devices (mean) vs first"), mean, first,
                       QStringLiteral("ms"), 1.0);
    Bench::reportAbsolute(QStringLiteral("createDevice, first device of an image"), first, QStringLiteral("ms"),
                          5000);
    return 0;
}
