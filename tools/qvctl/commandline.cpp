#include "commandline.h"

namespace {

const QMap<QString, QString> &valueOptions()
{
    static const QMap<QString, QString> options{
        {QStringLiteral("--plugin"), QStringLiteral("plugin")},
        {QStringLiteral("--image"), QStringLiteral("image")},
        {QStringLiteral("--profile"), QStringLiteral("profile")},
        {QStringLiteral("--sdcard"), QStringLiteral("sdcard")},
    };
    return options;
}

const QMap<QString, QString> &flagOptions()
{
    static const QMap<QString, QString> options{
        {QStringLiteral("--json"), QStringLiteral("json")},
        {QStringLiteral("-v"), QStringLiteral("verbose")},
        {QStringLiteral("--verbose"), QStringLiteral("verbose")},
        {QStringLiteral("--quickboot"), QStringLiteral("quickboot")},
        {QStringLiteral("-h"), QStringLiteral("help")},
        {QStringLiteral("--help"), QStringLiteral("help")},
        {QStringLiteral("--version"), QStringLiteral("version")},
    };
    return options;
}

} // namespace

CommandLine parseCommandLine(const QStringList &arguments)
{
    CommandLine line;
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (!optionsEnded && argument == QLatin1String("--")) {
            optionsEnded = true;
        } else if (!optionsEnded && flagOptions().contains(argument)) {
            line.flags.insert(flagOptions().value(argument));
        } else if (!optionsEnded && valueOptions().contains(argument)) {
            if (i + 1 >= arguments.size()) {
                line.error = QStringLiteral("option %1 needs a value").arg(argument);
                return line;
            }
            line.values.insert(valueOptions().value(argument), arguments.at(++i));
        } else if (!optionsEnded && argument.startsWith(QLatin1Char('-')) && argument.size() > 1) {
            line.error = QStringLiteral("unknown option %1").arg(argument);
            return line;
        } else if (line.command.isEmpty()) {
            line.command = argument;
        } else {
            line.arguments.append(argument);
        }
    }
    return line;
}

QString usageText()
{
    return QStringLiteral(
        "Usage: qvctl [--json] [-v] [--plugin PATH] COMMAND [ARGUMENTS]\n"
        "       qvctl [--json] [--plugin PATH] --version\n"
        "\n"
        "Commands:\n"
        "  check                          check the QEMU installation, acceleration and host\n"
        "  list                           list the devices\n"
        "  info NAME                      show one device\n"
        "  create NAME --image OSIMAGE.json|IMAGE.ova --profile HWPROFILE.json [--sdcard MiB]\n"
        "  start NAME [--quickboot]       start a device; prints its ports and ADB serial\n"
        "  stop NAME                      stop a device gracefully (by force if it does not quit)\n"
        "  delete NAME                    delete a stopped device\n"
        "  clone SOURCE NEW               copy a stopped device under a new name\n"
        "  reset NAME                     factory-reset a stopped device\n"
        "  snapshot list NAME\n"
        "  snapshot save NAME SNAPSHOT    (the device must be running)\n"
        "  snapshot delete NAME SNAPSHOT\n"
        "  resize NAME MiB                set the SD card size\n"
        "  sdcard NAME on|off             insert or remove the SD card\n"
        "  set NAME KEY VALUE             set a configuration value (JSON values are typed)\n"
        "  log NAME                       print the device's QEMU log (qemu.log)\n"
        "\n"
        "Options:\n"
        "  --json          machine-readable output on standard output\n"
        "  -v, --verbose   show the library's log lines (otherwise only its last critical line,\n"
        "                  when a command fails)\n"
        "  --plugin PATH   the qemu module to load (else QV_PLUGIN_PATH, else beside qvctl)\n"
        "  -h, --help      this text\n"
        "  --version       the versions of qvctl, the library and QEMU\n"
        "\n"
        "Exit codes:\n"
        "  0  success\n"
        "  1  the operation failed\n"
        "  2  bad usage (unknown command or option, missing or malformed argument)\n"
        "  3  unknown device\n"
        "  4  hypervhaxmerror: hardware acceleration is not usable\n"
        "  5  devicenotstarted: a device or resource QEMU needs is busy\n"
        "  6  incompatiblestate: another process is using a disk of this device\n"
        "  7  servicefailed: a port of this device is taken by another program\n"
        "  8  incompatibleosimagearch: the OS image architecture is not supported on this host\n"
        "  9  memorynotsupportederror: the RAM size cannot be addressed on this host\n");
}

bool isValidDeviceName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && !name.contains(QLatin1String(".."))
        && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'))
        && !name.contains(QLatin1Char(':')) && !name.startsWith(QLatin1Char('-'));
}

std::optional<qint64> parseMegabytes(const QString &text)
{
    if (text.startsWith(QLatin1Char('+')))
        return std::nullopt;
    bool ok;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || value < 0)
        return std::nullopt;
    return value;
}
