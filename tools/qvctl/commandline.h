#pragma once

#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

// The parsed command line: global and per-command options may appear anywhere.
struct CommandLine
{
    QString command;
    QStringList arguments;           // positional arguments after the command
    QMap<QString, QString> values;   // options with a value: plugin, image, profile, sdcard
    QSet<QString> flags;             // json, verbose, quickboot, help, version
    QString error;                   // non-empty when the line could not be parsed

    bool has(const QString &flag) const { return flags.contains(flag); }
    QString value(const QString &name) const { return values.value(name); }
};

CommandLine parseCommandLine(const QStringList &arguments);
QString usageText();
// A device name is one directory under the devices directory: no separators, no "..".
bool isValidDeviceName(const QString &name);
// Whole, non-negative numbers only; none for anything else.
std::optional<qint64> parseMegabytes(const QString &text);
