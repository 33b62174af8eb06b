#pragma once

#include <QFlags>
#include <QString>
#include <QStringList>

#include <functional>

// What a run of an external tool gives back. A run that did not get to its end (it never
// started, ran past its limit or was cancelled) keeps exit code 0 for the callers that read
// only the code, so work that leaves files behind asks succeeded() instead.
struct CommandResult
{
    qint32 exitCode = 0;     // -1 when cancelled
    QString output;          // standard output, UTF-8
    QString error;           // standard error, UTF-8; "canceled" when cancelled
    bool completed = false;  // the tool ran to its own end

    bool succeeded() const { return completed && exitCode == 0; }
};

enum RunFlag {
    NoTimeout = 1,    // wait as long as the tool runs
    LongTimeout = 2,  // 300000 ms instead of the default 30000 ms
    Quiet = 4,        // none of the runner's own log lines, except the failure warning
};
Q_DECLARE_FLAGS(RunFlags, RunFlag)
Q_DECLARE_OPERATORS_FOR_FLAGS(RunFlags)

// Runs a tool to its end and captures both output streams. Runs are serialised across the
// whole library, so it blocks while another thread's tool runs. A cancel callback is polled
// about once a second; answering true kills the tool. On the application's thread the wait
// runs a local event loop, so the host's interface keeps painting; other threads block.
CommandResult runCommand(const QString &program, const QStringList &arguments, RunFlags flags = {},
                         std::function<bool()> cancel = {});

// Polls every 100 ms until the process with this id is no longer running; false after
// timeoutMs (-1: no limit).
bool waitForProcessEnd(quint32 pid, int timeoutMs);

// Replaces the 30000 ms default limit, so tests need not wait that long; 0 or less brings
// the default back.
void setDefaultCommandTimeoutForTesting(int ms);
