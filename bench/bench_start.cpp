// What a start costs on top of its fixed wait for QEMU: listing the devices, searching a
// free port offset and building the argument list, with many devices and busy ports.

#include "benchdevices.h"
#include "benchsupport.h"

#include "hwprofile.h"
#include "osimage.h"
#include "qemucommandline.h"
#include "qemuengine.h"
#include "qemumachine.h"

#include <QCoreApplication>
#include <QDir>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QUuid>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int DeviceCount = 50;

bool createDevices(QEMUEngine &engine)
{
    return createBenchDevices(engine, DeviceCount);
}

// Keeps the ADB port of each given offset busy, so the search must pass over them.
std::vector<std::unique_ptr<QTcpServer>> occupyOffsets(int count)
{
    std::vector<std::unique_ptr<QTcpServer>> servers;
    for (int i = 0; i < count; ++i) {
        auto server = std::make_unique<QTcpServer>();
        if (!server->listen(QHostAddress::Any, quint16(6555 + 7 * i)))
            return {};
        servers.push_back(std::move(server));
    }
    return servers;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir home;
    QTemporaryDir bin;
    if (!home.isValid() || !bin.isValid())
        return 1;
    qputenv("QV_HOME", home.path().toUtf8());
    qputenv("QV_QEMU_BIN_DIR", bin.path().toUtf8());
    qunsetenv("QV_QEMU_START_ARGS");
    // The library's own log lines would swamp the timing.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    QEMUEngine engine;
    QDir(engine.devicesDirectory()).mkpath(QStringLiteral("."));

    // Reference: one candidate offset, that is a listen and close on each of the eight ports.
    const double oneCandidate = Bench::bestOfMs(20, [] {
        for (const QemuCommandLine::PortForward &forward : QemuCommandLine::portForwards()) {
            QTcpServer server;
            server.listen(QHostAddress::Any, quint16(forward.hostBase + 7 * 99));
            server.close();
        }
    });

    {
        auto busy = occupyOffsets(99);
        if (busy.empty()) {
            std::fprintf(stderr, "bench_start: the benchmark ports are taken\n");
            return 1;
        }
        int offset = -1;
        const double search = Bench::bestOfMs(5, [&] { offset = engine.findPortOffset(); });
        if (offset != 7 * 99) {
            std::fprintf(stderr, "bench_start: unexpected offset %d\n", offset);
            return 1;
        }
        Bench::reportRatio(QStringLiteral("findPortOffset, 99 offsets busy, vs one candidate"), search,
                           oneCandidate, QStringLiteral("ms"), 40);
    }

    if (!createDevices(engine)) {
        std::fprintf(stderr, "bench_start: cannot create the devices\n");
        return 1;
    }
    auto busy = occupyOffsets(20);
    if (busy.empty()) {
        std::fprintf(stderr, "bench_start: the benchmark ports are taken\n");
        return 1;
    }
    std::unique_ptr<VMToolsMachine> machine(engine.loadMachine(QStringLiteral("device-0")));
    if (!machine)
        return 1;

    // The port search lists the devices itself; the separate listing counts it once more,
    // so the figure errs on the high side.
    const double added = Bench::bestOfMs(5, [&] {
        qDeleteAll(engine.listMachines({}));
        const int offset = engine.findPortOffset();
        QemuLaunchSpec launch;
        launch.machinePath = machine->path();
        launch.memoryMegabytes = machine->ramSize();
        launch.cpuCount = machine->cpuCount();
        launch.virtio = machine->usesVirtio();
        launch.portOffset = quint16(offset);
        launch.shareDir = engine.shareDir();
        QemuCommandLine(engine.platform()).arguments(launch, QString());
    });
    Bench::reportAbsolute(QStringLiteral("start overhead, 50 devices, 20 offsets busy"), added,
                          QStringLiteral("ms"), 50);
    return 0;
}
