#include "enginehost.h"

#include "vmtoolsengine.h"
#include "vmtoolsmachine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include <cstdio>

namespace {

bool s_verbose;  // set by installMessageHandler() before anything logs
LogRecorder *s_recorder = nullptr;
QString s_lastCritical;

void messageHandler(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (s_recorder)
        s_recorder->record(type, message);
    // A fresh home's settings migration is the normal first state, never a failure's cause.
    if ((type == QtCriticalMsg || type == QtFatalMsg) && !message.startsWith(QLatin1String("Migrating settings")))
        s_lastCritical = message;
    // The library logs for its host's log file, not for a user at a terminal: a first run
    // alone warns about settings files that do not exist yet. A failure shows the last
    // critical line beside qvctl's own message; -v shows them all.
    if (!s_verbose)
        return;
    std::fprintf(stderr, "%s\n", qPrintable(message));
    std::fflush(stderr);
}

QStringList candidateModules(const QString &explicitPath)
{
    if (!explicitPath.isEmpty())
        return {explicitPath};
    const QString fromEnvironment = qEnvironmentVariable("QV_PLUGIN_PATH");
    if (!fromEnvironment.isEmpty())
        return {fromEnvironment};
#ifdef Q_OS_WIN
    const QString fileName = QStringLiteral("qemu.dll");
#else
    const QString fileName = QStringLiteral("libqemu.so");
#endif
    const QDir appDir(QCoreApplication::applicationDirPath());
    return {appDir.absoluteFilePath(fileName),
            QDir::cleanPath(appDir.absoluteFilePath(QStringLiteral("../../src/plugin/") + fileName))};
}

} // namespace

EngineHost::~EngineHost()
{
    // Destroyed through the module's own destructor, so the code must still be mapped.
    m_engine.reset();
}

bool EngineHost::load(const QString &explicitPath)
{
    const QStringList candidates = candidateModules(explicitPath);
    QStringList problems;
    for (const QString &candidate : candidates) {
        if (!QFileInfo::exists(candidate)) {
            problems.append(candidate + QStringLiteral(": no such file"));
            continue;
        }
        m_library.setFileName(QFileInfo(candidate).absoluteFilePath());
        if (!m_library.load()) {
            problems.append(m_library.errorString());
            continue;
        }
        using Entry = VMToolsEngine *(*)();
        auto entry = reinterpret_cast<Entry>(m_library.resolve("getVMToolsEngine"));
        if (!entry) {
            problems.append(candidate + QStringLiteral(": no getVMToolsEngine entry"));
            continue;
        }
        m_engine.reset(entry());
        if (m_engine)
            return true;
        problems.append(candidate + QStringLiteral(": getVMToolsEngine returned nothing"));
    }
    m_error = QStringLiteral("cannot load the qemu module (%1). Build it, or name it with --plugin PATH "
                             "or QV_PLUGIN_PATH.")
                  .arg(problems.join(QStringLiteral("; ")));
    return false;
}

void EngineHost::locateQemu()
{
    if (!qEnvironmentVariableIsEmpty("QV_QEMU_BIN_DIR"))
        return;
    const QString bundled = QCoreApplication::applicationDirPath() + QStringLiteral("/qemu/x86_64");
    if (QFileInfo(bundled).isDir())
        return;
    const QString found = QStandardPaths::findExecutable(QStringLiteral("qemu-system-x86_64"));
    if (!found.isEmpty())
        qputenv("QV_QEMU_BIN_DIR", QFileInfo(found).absolutePath().toUtf8());
}

void EngineHost::installMessageHandler(bool verbose)
{
    s_verbose = verbose;
    qInstallMessageHandler(messageHandler);
}

QString EngineHost::hiddenCritical()
{
    return s_verbose ? QString() : s_lastCritical;
}

LogRecorder::LogRecorder()
{
    s_recorder = this;
}

LogRecorder::~LogRecorder()
{
    s_recorder = nullptr;
}

bool LogRecorder::contains(QtMsgType type, const QString &line) const
{
    return m_lines.contains({type, line});
}

QString LogRecorder::firstCritical() const
{
    static const QString tag = QStringLiteral("[VMTools] ");
    for (const auto &line : m_lines) {
        if (line.first == QtCriticalMsg || line.first == QtFatalMsg)
            return line.second.startsWith(tag) ? line.second.mid(tag.size()) : line.second;
    }
    return {};
}
