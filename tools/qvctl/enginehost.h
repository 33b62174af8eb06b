#pragma once

#include <QLibrary>
#include <QList>
#include <QPair>
#include <QString>

#include <memory>

#include "vmtoolsengine.h"

// Loads the qemu module and holds the engine it hands out. The engine is destroyed before
// the module is unloaded, and the module stays loaded for as long as the host lives.
class EngineHost
{
public:
    EngineHost() = default;
    ~EngineHost();

    // Tries, in order: the explicit path, QV_PLUGIN_PATH, beside the executable, and the
    // module's place in the build tree. On failure error() says what was tried.
    bool load(const QString &explicitPath);
    VMToolsEngine *engine() const { return m_engine.get(); }
    QString modulePath() const { return m_library.fileName(); }
    QString error() const { return m_error; }

    // Points QV_QEMU_BIN_DIR at the qemu-system-x86_64 found on PATH when neither the
    // variable nor the bundled QEMU directory is there. Call before load().
    static void locateQemu();
    // Shows every library line with verbose, otherwise none.
    static void installMessageHandler(bool verbose);
    // The library's last critical line when it was kept out of sight, for a failure to show.
    static QString hiddenCritical();

private:
    QLibrary m_library;
    std::unique_ptr<VMToolsEngine> m_engine;
    QString m_error;
};

// Keeps the library's log lines for as long as it lives, so that a command can tell what a
// call did and name the step that failed. Shown or hidden as the handler decides. One at a time.
class LogRecorder
{
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder &) = delete;
    LogRecorder &operator=(const LogRecorder &) = delete;

    bool contains(QtMsgType type, const QString &line) const;
    // The first critical line names the failing step; the later ones only the steps around it.
    QString firstCritical() const;

    void record(QtMsgType type, const QString &line) { m_lines.append({type, line}); }

private:
    QList<QPair<QtMsgType, QString>> m_lines;
};
