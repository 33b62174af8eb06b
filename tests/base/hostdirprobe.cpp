// Prints the host directory table, one "name=path" line per entry, for tests that need
// a fresh process per QV_HOME setting.
#include "hostdirectories.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const HostDirectories &d = directories();
    QTextStream out(stdout);
    const QPair<const char *, QString> entries[] = {
        {"vendor", d.vendor},         {"home", d.home},           {"templates", d.templates},
        {"cache", d.cache},           {"ova", d.ova},             {"hwProfiles", d.hwProfiles},
        {"osImages", d.osImages},     {"systemImages", d.systemImages},
        {"deployed", d.deployed},     {"themes", d.themes},       {"skins", d.skins},
        {"media", d.media}};
    for (const auto &entry : entries)
        out << entry.first << '=' << entry.second << '\n';
    return 0;
}
