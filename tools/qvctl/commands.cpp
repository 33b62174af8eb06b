#include "commands.h"

#include "devicelock.h"
#include "enginehost.h"
#include "exitcodes.h"
#include "hostaccelerator.h"
#include "hostinfo.h"
#include "hostmemory.h"
#include "logging.h"
#include "playerfeaturesconfig.h"
#include "productlinks.h"
#include "version.h"
#include "vmtoolsengine.h"
#include "vmtoolsmachine.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QRegularExpression>
#include <QThread>
#include <QUrl>
#include <QUuid>
#include <QtEndian>

#include <cstdio>
#include <functional>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr int QmpBasePort = 23555;
constexpr int AdbBasePort = 6555;
// The library waits only briefly for QEMU to end after quit; a large guest takes longer.
constexpr int StopWaitSeconds = 10;

struct Arity
{
    int minimum;
    int maximum;
};

const QMap<QString, Arity> &arities()
{
    static const QMap<QString, Arity> table{
        {QStringLiteral("check"), {0, 0}},  {QStringLiteral("list"), {0, 0}},
        {QStringLiteral("info"), {1, 1}},   {QStringLiteral("create"), {1, 1}},
        {QStringLiteral("start"), {1, 1}},  {QStringLiteral("stop"), {1, 1}},
        {QStringLiteral("delete"), {1, 1}}, {QStringLiteral("clone"), {2, 2}},
        {QStringLiteral("reset"), {1, 1}},  {QStringLiteral("snapshot"), {2, 3}},
        {QStringLiteral("resize"), {2, 2}}, {QStringLiteral("sdcard"), {2, 2}},
        {QStringLiteral("set"), {3, 3}},    {QStringLiteral("log"), {1, 1}},
    };
    return table;
}

QString versionText(const Version &version)
{
    // An unbounded maximum carries major -1.
    return version.majorVersion < 0 ? QStringLiteral("none") : version.toString();
}

QJsonDocument readJsonDocument(const QString &path, QString &error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return {};
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        error = QStringLiteral("%1 is not a JSON object (%2)")
                    .arg(path, parseError.error != QJsonParseError::NoError ? parseError.errorString()
                                                                              : QStringLiteral("not an object"));
        return {};
    }
    return document;
}

// What the user sees for each start result: the error identifier and what to do next.
struct StartFailure
{
    int exitCode;
    const char *identifier;
    QString advice;
};

StartFailure startFailure(int result, const QString &name)
{
    switch (result) {
    case 4:
        return {ExitCode::AccelerationUnusable, "hypervhaxmerror",
                "hardware acceleration is not usable. Enable virtualisation in the firmware settings, "
                "make sure the hypervisor is accessible to this user, then run 'qvctl check'."};
    case 5:
        return {ExitCode::DeviceBusy, "devicenotstarted",
                QStringLiteral("a device or resource that QEMU needs is busy. Close the program holding it and start "
                               "again; 'qvctl log %1' shows QEMU's log with the details.").arg(name)};
    case 6:
        return {ExitCode::SystemFileInUse, "incompatiblestate",
                "another process is using a disk of this device. Stop the other QEMU using it, then start "
                "again."};
    case 7:
        return {ExitCode::PortInUse, "servicefailed",
                "a port of this device is taken by another program. Stop that program or wait for the port "
                "to be freed, then start again."};
    case 8:
        return {ExitCode::ArchNotSupported, "incompatibleosimagearch",
                "the OS image architecture is not supported on this host. Use an image for this host's "
                "architecture, or list the architecture in QV_OSIMAGE_ARCH_LIST."};
    case 9:
        return {ExitCode::MemoryNotSupported, "memorynotsupportederror",
                "the device's RAM size cannot be addressed on this host. Create the device with a profile "
                "of smaller ram_size."};
    default:
        return {ExitCode::Failure, "devicenotstarted",
                QStringLiteral("QEMU did not start or stopped too early. Read its log with 'qvctl log %1', or run "
                               "again with -v.").arg(name)};
    }
}

QString stateName(int state)
{
    switch (state) {
    case VMToolsMachine::StateRunning:
        return QStringLiteral("running");
    case VMToolsMachine::StatePoweredOff:
        return QStringLiteral("stopped");
    default:
        return QStringLiteral("unknown");
    }
}

QJsonObject portsJson(VMToolsMachine *machine)
{
    const int offset = int(machine->adbPort()) - AdbBasePort;
    QJsonArray forwarded;
    for (quint16 port : {machine->forwardedPort1(), machine->forwardedPort2(), machine->forwardedPort3(),
                         machine->forwardedPort4(), machine->forwardedPort5(), machine->forwardedPort6(),
                         machine->forwardedPort7()})
        forwarded.append(int(port));
    return {{QStringLiteral("offset"), offset},
            {QStringLiteral("adbSerial"), machine->adbSerial()},
            {QStringLiteral("adbPort"), int(machine->adbPort())},
            {QStringLiteral("qmpPort"), QmpBasePort + offset},
            {QStringLiteral("forwardedPorts"), forwarded}};
}

QJsonObject machineJson(VMToolsMachine *machine, bool running)
{
    const OsImage image = machine->osImage();
    QJsonObject object{{QStringLiteral("name"), machine->name()},
                       {QStringLiteral("uuid"), machine->uuid()},
                       {QStringLiteral("state"), stateName(running ? int(VMToolsMachine::StateRunning)
                                                                   : int(VMToolsMachine::StatePoweredOff))},
                       {QStringLiteral("path"), machine->path()},
                       {QStringLiteral("osImage"), image.name},
                       {QStringLiteral("osVersion"), image.osVersion.toString()},
                       {QStringLiteral("imageVersion"), image.imageVersion.toString()},
                       {QStringLiteral("arch"), image.arch},
                       {QStringLiteral("cpuCount"), machine->cpuCount()},
                       {QStringLiteral("ramMiB"), double(machine->ramSize())},
                       {QStringLiteral("sdCardMiB"), double(machine->sdCardSize())},
                       {QStringLiteral("sdCardInserted"), machine->isSdCardInserted()},
                       {QStringLiteral("sizeOnDiskBytes"), double(machine->sizeOnDisk())}};
    if (running)
        object.insert(QStringLiteral("ports"), portsJson(machine));
    return object;
}

QString portsText(const QJsonObject &ports)
{
    QStringList forwarded;
    for (const QJsonValue &port : ports.value(QStringLiteral("forwardedPorts")).toArray())
        forwarded.append(QString::number(port.toInt()));
    return forwarded.join(QLatin1Char(' '));
}

// A configuration value given on the command line: JSON literals keep their type.
QVariant typedValue(const QString &text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + text.toUtf8() + "]", &error);
    if (error.error == QJsonParseError::NoError && document.array().size() == 1)
        return document.array().first().toVariant();
    return text;
}

// Runs work, showing a spinner on a terminal meanwhile, and returns its result.
template <typename Work>
auto withSpinner(const QString &label, Work work)
{
    const Spinner spinner(label);
    return work();
}

} // namespace

Commands::Commands(const CommandLine &line, const Output &output) : m_line(line), m_out(output) {}

QString Commands::checkUsage()
{
    if (m_line.has(QStringLiteral("version")))
        return m_line.command.isEmpty() ? QString() : QStringLiteral("--version takes no command");
    if (m_line.command.isEmpty())
        return QStringLiteral("no command given");
    if (!arities().contains(m_line.command))
        return QStringLiteral("unknown command '%1'").arg(m_line.command);
    const Arity arity = arities().value(m_line.command);
    const QStringList &args = m_line.arguments;
    if (args.size() < arity.minimum)
        return QStringLiteral("'%1' needs more arguments").arg(m_line.command);
    if (args.size() > arity.maximum)
        return QStringLiteral("'%1' takes at most %2 arguments").arg(m_line.command).arg(arity.maximum);

    QStringList names;
    if (m_line.command == QLatin1String("snapshot")) {
        const QString action = args.at(0);
        if (action == QLatin1String("list")) {
            if (args.size() != 2)
                return QStringLiteral("'snapshot list' takes a device name only");
        } else if (action == QLatin1String("save") || action == QLatin1String("delete")) {
            if (args.size() != 3)
                return QStringLiteral("'snapshot %1' needs a device name and a snapshot name").arg(action);
            if (args.at(2).isEmpty())
                return QStringLiteral("the snapshot name is empty");
            // The snapshot listing only sees names of this form: any other would be saved
            // but never listed, and could not be deleted.
            static const QRegularExpression listable(QRegularExpression::anchoredPattern(QStringLiteral("\\w+")));
            if (!listable.match(args.at(2)).hasMatch())
                return QStringLiteral("'%1' is not a snapshot name (letters, digits and '_' only)").arg(args.at(2));
        } else {
            return QStringLiteral("unknown snapshot action '%1' (list, save or delete)").arg(action);
        }
        names.append(args.at(1));
    } else if (m_line.command == QLatin1String("clone")) {
        names = args;
    } else if (!args.isEmpty()) {
        names.append(args.first());
    }
    for (const QString &name : qAsConst(names)) {
        if (!isValidDeviceName(name))
            return QStringLiteral("'%1' is not a device name (no path separators or '..')").arg(name);
    }

    if (m_line.command == QLatin1String("resize") && !parseMegabytes(args.at(1)))
        return QStringLiteral("'%1' is not a size in MiB").arg(args.at(1));
    if (m_line.command == QLatin1String("sdcard") && args.at(1) != QLatin1String("on")
        && args.at(1) != QLatin1String("off"))
        return QStringLiteral("'sdcard' takes on or off, not '%1'").arg(args.at(1));
    if (m_line.values.contains(QStringLiteral("sdcard")) && !parseMegabytes(m_line.value(QStringLiteral("sdcard"))))
        return QStringLiteral("'%1' is not a size in MiB").arg(m_line.value(QStringLiteral("sdcard")));
    if (m_line.command == QLatin1String("create"))
        return loadDescriptions();
    return {};
}

QString Commands::loadDescriptions()
{
    const QString imagePath = m_line.value(QStringLiteral("image"));
    const QString profilePath = m_line.value(QStringLiteral("profile"));
    if (imagePath.isEmpty() || profilePath.isEmpty())
        return QStringLiteral("'create' needs --image and --profile");

    QString error;
    const QJsonDocument profileDocument = readJsonDocument(profilePath, error);
    if (!error.isEmpty())
        return error;
    m_profile = parseHwProfile(profileDocument.object());
    if (!m_profile.isValid())
        return QStringLiteral("%1 is not a valid hardware profile; run with -v to see why").arg(profilePath);
    const QString unusable = unusableProfileValue();
    if (!unusable.isEmpty())
        return QStringLiteral("%1: %2").arg(profilePath, unusable);

    const QFileInfo imageFile(imagePath);
    if (imageFile.suffix().compare(QLatin1String("ova"), Qt::CaseInsensitive) == 0) {
        if (!imageFile.isFile())
            return QStringLiteral("cannot read %1").arg(imagePath);
        // A bare archive: describe it as a user image of this host's architecture.
        m_image.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
        m_image.name = imageFile.completeBaseName();
        m_image.buildDate = imageFile.lastModified().toUTC();
        m_image.source = HwProfile::Source::USER;
        m_image.osVersion = parseVersion(QStringLiteral("11.0.0"));
        // The versions name the library's reference folder: each archive gets its own, so two
        // archives never share disks. Path, size and time tell archives apart without reading them.
        const QByteArray identity = (imageFile.canonicalFilePath() + QString::number(imageFile.size())
                                     + QString::number(imageFile.lastModified().toMSecsSinceEpoch())).toUtf8();
        const QByteArray digest = QCryptographicHash::hash(identity, QCryptographicHash::Sha1);
        const quint32 build = qFromBigEndian<quint32>(digest.constData()) & 0x7fffffff;
        m_image.imageVersion = parseVersion(QStringLiteral("1.0.%1").arg(build));
        m_image.arch = QStringLiteral("x86_64");
        m_image.imageUri = imageFile.absoluteFilePath();
        m_image.imageSizeBytes = imageFile.size();
        m_image.version = parseVersion(QStringLiteral("1.1.0"));
        m_image.sdkVersion = 30;
        m_imageDerived = true;
    } else {
        const QJsonDocument imageDocument = readJsonDocument(imagePath, error);
        if (!error.isEmpty())
            return error;
        m_image = parseOsImage(imageDocument.object());
        if (m_image == OsImage())
            return QStringLiteral("%1 is not a valid OS image description; run with -v to see why").arg(imagePath);
        // A relative archive path in the description is relative to the description itself.
        const QUrl uri(m_image.imageUri);
        if (!m_image.imageUri.isEmpty() && uri.scheme().isEmpty() && QFileInfo(m_image.imageUri).isRelative()) {
            const QString beside = QFileInfo(imagePath).absoluteDir().absoluteFilePath(m_image.imageUri);
            if (QFileInfo::exists(beside))
                m_image.imageUri = beside;
        }
    }
    if (const std::optional<qint64> sdCard = parseMegabytes(m_line.value(QStringLiteral("sdcard"))))
        m_profile.sdCardSize = *sdCard;
    return {};
}

QString Commands::unusableProfileValue() const
{
    // QEMU would refuse these only at the first start, long after the device was made.
    if (m_profile.ramSize <= 0)
        return QStringLiteral("ram_size %1 is not a memory size; give it in MiB").arg(m_profile.ramSize);
    const std::optional<qint64> memory = hostMemoryMegabytes();
    if (memory && m_profile.ramSize > *memory)
        return QStringLiteral("ram_size %1 MiB is more than this host's %2 MiB of memory")
            .arg(m_profile.ramSize).arg(*memory);
    if (m_profile.cpuCount <= 0)
        return QStringLiteral("cpu_count %1 is not a processor count").arg(m_profile.cpuCount);
    // At least 1, also where the host does not tell.
    const int processors = QThread::idealThreadCount();
    if (m_profile.cpuCount > processors)
        return QStringLiteral("cpu_count %1 is more than this host's %2 processors").arg(m_profile.cpuCount).arg(processors);
    return {};
}

int Commands::run(VMToolsEngine *engine)
{
    m_engine = engine;
    static const QMap<QString, int (Commands::*)()> handlers{
        {QStringLiteral("check"), &Commands::check},     {QStringLiteral("list"), &Commands::list},
        {QStringLiteral("info"), &Commands::info},       {QStringLiteral("create"), &Commands::create},
        {QStringLiteral("start"), &Commands::start},     {QStringLiteral("stop"), &Commands::stop},
        {QStringLiteral("delete"), &Commands::remove},   {QStringLiteral("clone"), &Commands::clone},
        {QStringLiteral("reset"), &Commands::reset},     {QStringLiteral("snapshot"), &Commands::snapshot},
        {QStringLiteral("resize"), &Commands::resize},   {QStringLiteral("sdcard"), &Commands::sdcard},
        {QStringLiteral("set"), &Commands::set},         {QStringLiteral("log"), &Commands::log},
    };
    if (m_line.has(QStringLiteral("version")))
        return version();
    return (this->*handlers.value(m_line.command))();
}

std::unique_ptr<VMToolsMachine> Commands::machine(const QString &name)
{
    std::unique_ptr<VMToolsMachine> loaded(m_engine->loadMachine(name));
    if (loaded)
        return loaded;
    if (QFileInfo(m_engine->devicesDirectory().absoluteFilePath(name)).isDir()) {
        // Half there while another process deletes or makes it: then say it is busy.
        m_exitCode = failed({name}, QStringLiteral("device '%1' exists but cannot be loaded; run with -v to see why, "
                                                   "or delete its directory %2")
                                        .arg(name, m_engine->devicesDirectory().absoluteFilePath(name)));
    } else {
        m_exitCode = m_out.fail(ExitCode::UnknownDevice,
                                QStringLiteral("no device named '%1'; 'qvctl list' shows the devices").arg(name));
    }
    return {};
}

bool Commands::isRunning(VMToolsMachine *machine) const
{
    return machine->status() == VMToolsMachine::StateRunning;
}

int Commands::failed(const QStringList &devices, const QString &message, const QString &identifier, int exitCode) const
{
    // Another process's operation on the device is the likelier cause: say so.
    for (const QString &device : devices) {
        if (DeviceLock::isBusy(m_engine->devicesDirectory().absoluteFilePath(device)))
            return m_out.fail(ExitCode::DeviceBusy,
                              QStringLiteral("device '%1' is busy with another operation; try again when it has ended").arg(device));
    }
    return m_out.fail(exitCode, message, identifier);
}

int Commands::refuseRunning(const QString &name, const QString &action) const
{
    return m_out.fail(ExitCode::Failure,
                      QStringLiteral("device '%1' is running; stop it first with 'qvctl stop %1', then %2 it")
                          .arg(name, action));
}

int Commands::check()
{
    const QStringList errors = m_engine->installationErrors();
    const Version version = m_engine->version();
    const Version minimum = m_engine->minimumVersion();
    const Version maximum = m_engine->maximumVersion();
    const bool versionOk = errors.isEmpty() && version >= minimum
        && (maximum.majorVersion < 0 || version <= maximum);
    const bool acceleration = m_engine->isAccelerationAvailable();
    const HostAccelerator accelerator = hostAccelerator(acceleration);
    const bool virtualization = m_engine->isVirtualizationSupported();
    const QStringList flags = playerFeatures().enabledFlags();

    const QJsonObject report{{QStringLiteral("ok"), versionOk},
                             {QStringLiteral("engine"), m_engine->name()},
                             {QStringLiteral("installationErrors"), QJsonArray::fromStringList(errors)},
                             {QStringLiteral("version"), m_engine->versionString()},
                             {QStringLiteral("minimumVersion"), versionText(minimum)},
                             {QStringLiteral("maximumVersion"), versionText(maximum)},
                             {QStringLiteral("versionSupported"), versionOk},
                             {QStringLiteral("acceleration"), acceleration},
                             {QStringLiteral("accelerator"), accelerator.name},
                             {QStringLiteral("hardwareAcceleration"), accelerator.hardware},
                             {QStringLiteral("acceleratorWarning"), accelerator.warning},
                             {QStringLiteral("cpuVendor"), m_engine->cpuVendor()},
                             {QStringLiteral("cpuVirtualization"), virtualization},
                             {QStringLiteral("hostOs"), HostInfo::osVersion()},
                             {QStringLiteral("hostArchitecture"), HostInfo::cpuArchitecture()},
                             {QStringLiteral("featureFlags"), QJsonArray::fromStringList(flags)},
                             {QStringLiteral("webSite"), ProductLinks::webSite().toString()},
                             {QStringLiteral("downloadPage"), ProductLinks::downloadPage().toString()},
                             {QStringLiteral("devicesDirectory"), m_engine->devicesDirectory().absolutePath()}};
    if (m_out.isJson()) {
        if (versionOk)
            m_out.json(report);  // a failure prints the report as part of its one object
    } else {
        m_out.fields({{QStringLiteral("Engine"), m_engine->name()},
                      {QStringLiteral("Installation"), errors.isEmpty() ? QStringLiteral("ok") : errors.join(QStringLiteral("; "))},
                      {QStringLiteral("QEMU version"), m_engine->versionString()},
                      {QStringLiteral("Supported"), QStringLiteral("%1 to %2 (%3)")
                                                          .arg(versionText(minimum), versionText(maximum),
                                                               versionOk ? QStringLiteral("ok") : QStringLiteral("NOT SUPPORTED"))},
                      {QStringLiteral("Accelerator"), accelerator.hardware ? accelerator.name
                                                      : accelerator.name + (acceleration ? QStringLiteral(" (software, slow)")
                                                                                         : QStringLiteral(" (devices cannot start)"))},
                      {QStringLiteral("CPU"), m_engine->cpuVendor()},
                      {QStringLiteral("CPU virtualisation"), virtualization ? QStringLiteral("supported") : QStringLiteral("not reported")},
                      {QStringLiteral("Host OS"), HostInfo::osVersion()},
                      {QStringLiteral("Host architecture"), HostInfo::cpuArchitecture()},
                      {QStringLiteral("Feature flags"), flags.isEmpty() ? QStringLiteral("none") : flags.join(QLatin1Char(' '))},
                      {QStringLiteral("Web site"), ProductLinks::webSite().toString()},
                      {QStringLiteral("Download page"), ProductLinks::downloadPage().toString()},
                      {QStringLiteral("Devices"), m_engine->devicesDirectory().absolutePath()}});
    }
    if (!errors.isEmpty())
        return m_out.fail(ExitCode::Failure, QStringLiteral("QEMU is not installed correctly. Install QEMU (scripts/install-deps.sh) or point QV_QEMU_BIN_DIR at its directory."),
                          QStringLiteral("qemunotinstalled"), report);
    if (!versionOk)
        return m_out.fail(ExitCode::Failure, QStringLiteral("QEMU %1 is outside the supported range. Install a supported QEMU version.")
                                                 .arg(m_engine->versionString()), QString(), report);
    // Devices still run, only slowly: a warning, not a failure.
    if (!accelerator.warning.isEmpty())
        std::fprintf(stderr, "qvctl: warning: %s\n", qPrintable(accelerator.warning));
    return ExitCode::Success;
}

int Commands::version()
{
    const QString own = QStringLiteral(QVCTL_VERSION);
    const QStringList errors = m_engine->installationErrors();
    if (!errors.isEmpty()) {
        if (!m_out.isJson())
            m_out.fields({{QStringLiteral("qvctl version"), own}, {QStringLiteral("library version"), own}});
        return m_out.fail(ExitCode::Failure, QStringLiteral("QEMU is not installed correctly; 'qvctl check' tells more."),
                          QStringLiteral("qemunotinstalled"),
                          {{QStringLiteral("qvctl"), own}, {QStringLiteral("library"), own}});
    }
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("qvctl"), own}, {QStringLiteral("library"), own},
                    {QStringLiteral("qemu"), m_engine->versionString()}});
    else
        m_out.fields({{QStringLiteral("qvctl version"), own}, {QStringLiteral("library version"), own},
                      {QStringLiteral("QEMU version"), m_engine->versionString()}});
    return ExitCode::Success;
}

int Commands::log()
{
    const QString name = m_line.arguments.at(0);
    const QDir folder(m_engine->devicesDirectory().absoluteFilePath(name));
    if (!folder.exists())
        return m_out.fail(ExitCode::UnknownDevice, QStringLiteral("no device named '%1'; 'qvctl list' shows the devices").arg(name));
    QFile file(folder.absoluteFilePath(QStringLiteral("qemu.log")));
    if (!file.exists())
        return m_out.fail(ExitCode::Failure, QStringLiteral("device '%1' has no QEMU log yet; QEMU writes %2 when the device starts")
                                                 .arg(name, file.fileName()));
    if (!file.open(QIODevice::ReadOnly))
        return m_out.fail(ExitCode::Failure, QStringLiteral("cannot read %1: %2").arg(file.fileName(), file.errorString()));
    // A log is text of modest size, but a runaway one is never held whole: --json shows its
    // last 16 MiB, and the text is copied as it is, whatever its size, 16 MiB at a time.
    constexpr qint64 ReadLimit = 16 * 1024 * 1024;
    if (m_out.isJson()) {
        file.seek(qMax<qint64>(0, file.size() - ReadLimit));
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), name}, {QStringLiteral("path"), file.fileName()},
                    {QStringLiteral("log"), QString::fromUtf8(file.read(ReadLimit))}});
        return ExitCode::Success;
    }
    QByteArray chunk;
    while (!(chunk = file.read(ReadLimit)).isEmpty())
        std::fwrite(chunk.constData(), 1, size_t(chunk.size()), stdout);
    std::fflush(stdout);
    return ExitCode::Success;
}

int Commands::list()
{
    const QList<VMToolsMachine *> machines = m_engine->listMachines(&drawProgress);
    std::vector<std::unique_ptr<VMToolsMachine>> owned(machines.begin(), machines.end());
    QJsonArray array;
    QList<QStringList> rows;
    for (const auto &machine : owned) {
        const bool running = isRunning(machine.get());
        const QJsonObject object = machineJson(machine.get(), running);
        array.append(object);
        rows.append({machine->name(), stateName(running ? int(VMToolsMachine::StateRunning) : int(VMToolsMachine::StatePoweredOff)),
                     object.value(QStringLiteral("osImage")).toString(),
                     QString::number(machine->ramSize()), QString::number(machine->cpuCount()),
                     running ? machine->adbSerial() : QString()});
    }
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("devices"), array}});
    else
        m_out.table({QStringLiteral("NAME"), QStringLiteral("STATE"), QStringLiteral("IMAGE"), QStringLiteral("RAM_MIB"),
                     QStringLiteral("CPUS"), QStringLiteral("ADB")},
                    rows);
    return ExitCode::Success;
}

int Commands::info()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    const bool running = isRunning(device.get());
    const QJsonObject object = machineJson(device.get(), running);
    if (m_out.isJson()) {
        QJsonObject reply = object;
        reply.insert(QStringLiteral("ok"), true);
        m_out.json(reply);
        return ExitCode::Success;
    }
    QList<QPair<QString, QString>> pairs;
    for (const QString &key : {QStringLiteral("name"), QStringLiteral("uuid"), QStringLiteral("state"), QStringLiteral("path"),
                               QStringLiteral("osImage"), QStringLiteral("osVersion"), QStringLiteral("imageVersion"),
                               QStringLiteral("arch"), QStringLiteral("cpuCount"), QStringLiteral("ramMiB"),
                               QStringLiteral("sdCardMiB"), QStringLiteral("sdCardInserted"), QStringLiteral("sizeOnDiskBytes")})
        pairs.append({key, object.value(key).toVariant().toString()});
    if (running) {
        const QJsonObject ports = object.value(QStringLiteral("ports")).toObject();
        pairs.append({QStringLiteral("adbSerial"), ports.value(QStringLiteral("adbSerial")).toString()});
        pairs.append({QStringLiteral("qmpPort"), QString::number(ports.value(QStringLiteral("qmpPort")).toInt())});
        pairs.append({QStringLiteral("forwardedPorts"), portsText(ports)});
    }
    m_out.fields(pairs);
    return ExitCode::Success;
}

int Commands::create()
{
    const QString name = m_line.arguments.at(0);
    // A folder without a loadable device is a leftover that the library cleans.
    if (m_engine->isMachineLoadable(name))
        return m_out.fail(ExitCode::Failure, QStringLiteral("device '%1' already exists; pick another name or delete it first").arg(name));
    if (m_imageDerived)
        m_out.message(QStringLiteral("Describing %1 as a user image: name %2, arch x86_64, OS 11.0.0, image %3")
                          .arg(m_image.imageUri, m_image.name, m_image.imageVersion.toString()));
    LogRecorder log;
    const int result = withSpinner(QStringLiteral("Creating %1").arg(name),
                                   [&] { return m_engine->createDevice(name, m_image, m_profile); });
    if (result != 0) {
        const QString cause = log.firstCritical();
        return failed({name}, cause.isEmpty() ? QStringLiteral("could not create '%1'; run with -v for details").arg(name)
                                              : QStringLiteral("could not create '%1': %2").arg(name, cause));
    }
    auto device = machine(name);
    if (!device)
        return m_exitCode;
    // The library makes the card; putting it in the device is the host's choice.
    if (m_profile.hasSdCard() && !device->setSdCardInserted(true))
        return m_out.fail(ExitCode::Failure, QStringLiteral("created '%1' but could not insert its SD card").arg(name));
    if (m_out.isJson()) {
        QJsonObject reply = machineJson(device.get(), false);
        reply.insert(QStringLiteral("ok"), true);
        reply.insert(QStringLiteral("imageDerived"), m_imageDerived);
        m_out.json(reply);
    } else {
        m_out.message(QStringLiteral("Created %1 in %2").arg(name, device->path()));
    }
    return ExitCode::Success;
}

int Commands::start()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    bool quickboot = m_line.has(QStringLiteral("quickboot"));
    const bool askedQuickboot = quickboot;
    const bool runningBefore = isRunning(device.get());
    LogRecorder log;
    const int result = m_engine->startMachineWithSnapshotPolicy(device.get(), quickboot);
    if (result != 1) {
        // 5 also answers a start that another operation held off; failed() tells that apart.
        const StartFailure failure = startFailure(result, device->name());
        return failed({device->name()}, failure.advice, QString::fromLatin1(failure.identifier), failure.exitCode);
    }
    // The engine answers 1 whether it started QEMU or found it running, and only its log
    // tells which; another process may have started the device while this one waited.
    const bool alreadyRunning = log.contains(QtWarningMsg, QStringLiteral("[VMTools] QEMU process is already running."))
        || (lcVMTools().isDebugEnabled()
                ? log.contains(QtDebugMsg, QStringLiteral("[VMTools] Virtual Machine status: on. Nothing to do."))
                : runningBefore);
    device->status();  // picks up the port offset of the running QEMU
    const QJsonObject ports = portsJson(device.get());
    if (m_out.isJson()) {
        m_out.json({{QStringLiteral("ok"), true},
                    {QStringLiteral("name"), device->name()},
                    {QStringLiteral("alreadyRunning"), alreadyRunning},
                    {QStringLiteral("quickboot"), quickboot},
                    {QStringLiteral("ports"), ports}});
        return ExitCode::Success;
    }
    if (askedQuickboot && !quickboot && !alreadyRunning)
        m_out.message(QStringLiteral("Quick boot is not available with QEMU: cold boot"));
    m_out.fields({{alreadyRunning ? QStringLiteral("Already running") : QStringLiteral("Started"), device->name()},
                  {QStringLiteral("ADB serial"), ports.value(QStringLiteral("adbSerial")).toString()},
                  {QStringLiteral("QMP port"), QString::number(ports.value(QStringLiteral("qmpPort")).toInt())},
                  {QStringLiteral("Forwarded ports"), portsText(ports)}});
    return ExitCode::Success;
}

int Commands::stop()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    const bool wasRunning = isRunning(device.get());
    if (wasRunning) {
        if (!m_engine->stopMachine(device.get()))
            return failed({device->name()}, QStringLiteral("could not stop '%1'. Run again with -v; if QEMU still runs, end it and "
                                                           "remove qemu.lock in %2")
                                                .arg(device->name(), device->path()));
        // The engine counts an accepted quit as a stop, whether or not QEMU has ended yet.
        const QDeadlineTimer deadline{std::chrono::seconds(StopWaitSeconds)};
        while (isRunning(device.get())) {
            if (deadline.hasExpired())
                return m_out.fail(ExitCode::Failure, QStringLiteral("QEMU of '%1' accepted quit but still runs after %2 s. Run 'qvctl stop %1' "
                                                                    "again to end it by force")
                                                         .arg(device->name())
                                                         .arg(StopWaitSeconds));
            std::this_thread::sleep_for(100ms);
        }
    }
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()}, {QStringLiteral("wasRunning"), wasRunning}});
    else
        m_out.message(wasRunning ? QStringLiteral("Stopped %1").arg(device->name())
                                 : QStringLiteral("%1 was not running").arg(device->name()));
    return ExitCode::Success;
}

int Commands::remove()
{
    const QString name = m_line.arguments.at(0);
    // A folder that holds no loadable device, such as one an interrupted create left, goes
    // too; but only one that really lies inside the devices folder.
    const QFileInfo folder(m_engine->devicesDirectory().absoluteFilePath(name));
    if (folder.isDir() && !folder.isSymLink() && !m_engine->isMachineLoadable(name)
        && QFileInfo(folder.canonicalFilePath()).dir() == m_engine->devicesDirectory()) {
        if (!QDir(folder.filePath()).removeRecursively())
            return m_out.fail(ExitCode::Failure, QStringLiteral("could not delete %1. Check its permissions").arg(folder.filePath()));
        if (m_out.isJson())
            m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), name}});
        else
            m_out.message(QStringLiteral("Deleted %1, which held no loadable device").arg(folder.filePath()));
        return ExitCode::Success;
    }
    auto device = machine(name);
    if (!device)
        return m_exitCode;
    if (isRunning(device.get()))
        return refuseRunning(name, QStringLiteral("delete"));
    if (!m_engine->deleteMachine(device.get()))
        return failed({name}, QStringLiteral("could not delete '%1'. Check the permissions of %2").arg(name, device->path()));
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), name}});
    else
        m_out.message(QStringLiteral("Deleted %1").arg(name));
    return ExitCode::Success;
}

int Commands::clone()
{
    const QString sourceName = m_line.arguments.at(0);
    const QString newName = m_line.arguments.at(1);
    auto source = machine(sourceName);
    if (!source)
        return m_exitCode;
    if (isRunning(source.get()))
        return refuseRunning(sourceName, QStringLiteral("clone"));
    if (m_engine->isMachineLoadable(newName))
        return m_out.fail(ExitCode::Failure, QStringLiteral("device '%1' already exists; pick another name").arg(newName));
    const std::unique_ptr<VMToolsMachine> copy(withSpinner(QStringLiteral("Cloning %1 to %2").arg(sourceName, newName),
                                                           [&] { return m_engine->cloneMachine(source.get(), newName); }));
    if (!copy)
        return failed({sourceName, newName}, QStringLiteral("could not clone '%1'. Check the free disk space; run with -v for details").arg(sourceName));
    if (m_out.isJson()) {
        QJsonObject reply = machineJson(copy.get(), false);
        reply.insert(QStringLiteral("ok"), true);
        m_out.json(reply);
    } else {
        m_out.message(QStringLiteral("Cloned %1 to %2 (uuid %3)").arg(sourceName, newName, copy->uuid()));
    }
    return ExitCode::Success;
}

int Commands::reset()
{
    const QString name = m_line.arguments.at(0);
    auto device = machine(name);
    if (!device)
        return m_exitCode;
    if (isRunning(device.get()))
        return refuseRunning(name, QStringLiteral("reset"));
    const int result = withSpinner(QStringLiteral("Resetting %1").arg(name), [&] { return device->factoryReset(); });
    if (result == 3)
        return m_out.fail(ExitCode::Failure, QStringLiteral("the reference disks of '%1' are gone and it was upgraded; create the device again").arg(name));
    if (result != 0)
        return failed({name}, QStringLiteral("could not reset '%1'; it is left as it was. Run with -v for details, "
                                             "or create the device again from its image")
                                  .arg(name));
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), name}});
    else
        m_out.message(QStringLiteral("Reset %1 to its factory state").arg(name));
    return ExitCode::Success;
}

int Commands::snapshot()
{
    const QString action = m_line.arguments.at(0);
    auto device = machine(m_line.arguments.at(1));
    if (!device)
        return m_exitCode;
    if (action == QLatin1String("list")) {
        const QStringList names = m_engine->listSnapshots(device.get());
        if (m_out.isJson()) {
            m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()},
                        {QStringLiteral("snapshots"), QJsonArray::fromStringList(names)}});
        } else {
            QList<QStringList> rows;
            for (const QString &snapshot : names)
                rows.append({snapshot});
            m_out.table({QStringLiteral("SNAPSHOT")}, rows);
        }
        return ExitCode::Success;
    }
    const QString snapshotName = m_line.arguments.at(2);
    if (action == QLatin1String("save")) {
        if (!isRunning(device.get()))
            return m_out.fail(ExitCode::Failure, QStringLiteral("device '%1' is not running; start it with 'qvctl start %1' before "
                                                                "saving a snapshot")
                                                     .arg(device->name()));
        if (!m_engine->saveSnapshot(device.get(), snapshotName))
            return failed({device->name()}, QStringLiteral("could not save snapshot '%1'; names of letters, digits and '_' "
                                                           "work best. Run with -v for details")
                                                .arg(snapshotName),
                          QStringLiteral("savesnapshotfailed"));
    } else {
        if (isRunning(device.get()))
            return refuseRunning(device->name(), QStringLiteral("delete a snapshot of"));
        if (!m_engine->deleteSnapshot(device.get(), snapshotName))
            return failed({device->name()}, QStringLiteral("could not delete snapshot '%1'. Run with -v for details").arg(snapshotName));
    }
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()}, {QStringLiteral("snapshot"), snapshotName}});
    else
        m_out.message(QStringLiteral("%1 snapshot %2 of %3")
                          .arg(action == QLatin1String("save") ? QStringLiteral("Saved") : QStringLiteral("Deleted"), snapshotName,
                               device->name()));
    return ExitCode::Success;
}

int Commands::resize()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    const qint64 megabytes = *parseMegabytes(m_line.arguments.at(1));  // checkUsage() let only sizes through
    if (!device->setSdCardSize(megabytes))
        return failed({device->name()}, QStringLiteral("could not set the SD card size of '%1' to %2 MiB; stop the device and "
                                                       "try again, shrinking may be refused by qemu-img")
                                            .arg(device->name())
                                            .arg(megabytes));
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()},
                    {QStringLiteral("sdCardMiB"), double(device->sdCardSize())}});
    else
        m_out.message(QStringLiteral("SD card of %1: %2 MiB").arg(device->name()).arg(device->sdCardSize()));
    return ExitCode::Success;
}

int Commands::sdcard()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    const bool insert = m_line.arguments.at(1) == QLatin1String("on");
    if (!device->setSdCardInserted(insert))
        return failed({device->name()}, QStringLiteral("could not %1 the SD card of '%2'; give it a size first with "
                                                       "'qvctl resize %2 MiB'")
                                            .arg(insert ? QStringLiteral("insert") : QStringLiteral("remove"), device->name()));
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()},
                    {QStringLiteral("sdCardInserted"), device->isSdCardInserted()}});
    else
        m_out.message(QStringLiteral("SD card of %1: %2").arg(device->name(), insert ? QStringLiteral("inserted") : QStringLiteral("removed")));
    return ExitCode::Success;
}

int Commands::set()
{
    auto device = machine(m_line.arguments.at(0));
    if (!device)
        return m_exitCode;
    const QString key = m_line.arguments.at(1);
    if (key.isEmpty())
        return m_out.fail(ExitCode::BadUsage, QStringLiteral("the key is empty"));
    const QVariant value = typedValue(m_line.arguments.at(2));
    // device.json lies in the folder that a running QEMU holds as a drive.
    if (isRunning(device.get()))
        return refuseRunning(device->name(), QStringLiteral("change"));
    if (!device->setConfigurationValue(key, value))
        return isRunning(device.get()) ? refuseRunning(device->name(), QStringLiteral("change")) : m_out.fail(ExitCode::Failure, QStringLiteral("could not save '%1' of '%2'; check that %3 is writable")
                                                 .arg(key, device->name(), device->deviceJsonPath()));
    if (m_out.isJson())
        m_out.json({{QStringLiteral("ok"), true}, {QStringLiteral("name"), device->name()}, {QStringLiteral("key"), key},
                    {QStringLiteral("value"), QJsonValue::fromVariant(device->configurationValue(key))}});
    else
        m_out.message(QStringLiteral("%1: %2 = %3").arg(device->name(), key, device->configurationValue(key).toString()));
    return ExitCode::Success;
}
