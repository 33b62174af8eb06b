// Listing 1000 devices through the engine against the least a listing must do: reading and
// parsing the same device.json files with QJsonDocument alone.

#include "benchdevices.h"
#include "benchsupport.h"

#include "hwprofile.h"
#include "osimage.h"
#include "qemuengine.h"
#include "qemumachine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QUuid>

#include <cstdio>
#include <memory>

namespace {

constexpr int DeviceCount = 1000;

bool createDevices(QEMUEngine &engine)
{
    return createBenchDevices(engine, DeviceCount);
}

// Reads every device.json under the devices directory and parses it; answers how many parsed.
int parseAll(const QDir &devices, const QString &relativeJson)
{
    int parsed = 0;
    for (const QString &name : devices.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(devices.absoluteFilePath(name) + relativeJson);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        if (QJsonDocument::fromJson(file.readAll()).isObject())
            ++parsed;
    }
    return parsed;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTemporaryDir home;
    if (!home.isValid())
        return 1;
    qputenv("QV_HOME", home.path().toUtf8());
    qputenv("QV_QEMU_BIN_DIR", home.path().toUtf8());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});

    QEMUEngine engine;
    const QDir devices = engine.devicesDirectory();
    if (!QDir().mkpath(devices.absolutePath()) || !createDevices(engine)) {
        std::fprintf(stderr, "bench_listmachines: cannot create the devices\n");
        return 1;
    }
    std::unique_ptr<VMToolsMachine> first(engine.loadMachine(QStringLiteral("device-0")));
    if (!first) {
        std::fprintf(stderr, "bench_listmachines: cannot load a device\n");
        return 1;
    }
    const QString relativeJson = first->deviceJsonPath().mid(first->path().size());

    int parsed = 0;
    const double reference = Bench::bestOfMs(3, [&] { parsed = parseAll(devices, relativeJson); });
    int listed = 0;
    const double listing = Bench::bestOfMs(3, [&] {
        const QList<VMToolsMachine *> machines = engine.listMachines({});
        listed = machines.size();
        qDeleteAll(machines);
    });
    if (parsed != DeviceCount || listed != DeviceCount) {
        std::fprintf(stderr, "bench_listmachines: parsed %d and listed %d of %d devices\n", parsed, listed,
                     DeviceCount);
        return 1;
    }
    Bench::reportRatio(QStringLiteral("listMachines, 1000 devices, vs parsing their device.json"), listing,
                       reference, QStringLiteral("ms"), 10);
    return 0;
}
