#include "commandline.h"
#include "commands.h"
#include "enginehost.h"
#include "exitcodes.h"
#include "output.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const CommandLine line = parseCommandLine(app.arguments().mid(1));
    const Output output(line.has(QStringLiteral("json")));
    EngineHost::installMessageHandler(line.has(QStringLiteral("verbose")));

    if (line.has(QStringLiteral("help"))) {
        std::printf("%s", qPrintable(usageText()));
        return ExitCode::Success;
    }
    Commands commands(line, output);
    const QString usageError = line.error.isEmpty() ? commands.checkUsage() : line.error;
    if (!usageError.isEmpty()) {
        output.fail(ExitCode::BadUsage, usageError);
        std::fprintf(stderr, "\n%s", qPrintable(usageText()));
        return ExitCode::BadUsage;
    }

    EngineHost::locateQemu();
    EngineHost host;
    if (!host.load(line.value(QStringLiteral("plugin"))))
        return output.fail(ExitCode::Failure, host.error());
    return commands.run(host.engine());
}
