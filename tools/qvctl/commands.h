#pragma once

#include "commandline.h"
#include "exitcodes.h"
#include "hwprofile.h"
#include "osimage.h"
#include "output.h"

#include <memory>

class VMToolsEngine;
class VMToolsMachine;

// Runs one qvctl command against the engine. checkUsage() runs before the module is loaded
// so that a malformed command line never needs QEMU or touches a device.
class Commands
{
public:
    Commands(const CommandLine &line, const Output &output);

    // Empty when the command line is usable; otherwise what is wrong with it. Reads the
    // description files of create.
    QString checkUsage();
    int run(VMToolsEngine *engine);

private:
    int check();
    int list();
    int info();
    int create();
    int start();
    int stop();
    int remove();
    int clone();
    int reset();
    int snapshot();
    int resize();
    int sdcard();
    int set();
    int log();
    int version();

    // Loads the named device; on failure writes the error and sets m_exitCode.
    std::unique_ptr<VMToolsMachine> machine(const QString &name);
    bool isRunning(VMToolsMachine *machine) const;
    // A failed operation: exit code 5 naming the device when another operation holds one of
    // them, otherwise exitCode with the message.
    int failed(const QStringList &devices, const QString &message, const QString &identifier = QString(),
               int exitCode = ExitCode::Failure) const;
    int refuseRunning(const QString &name, const QString &action) const;
    QString loadDescriptions();
    // Empty when the profile's memory and processors can run on this host; otherwise why not.
    QString unusableProfileValue() const;

    const CommandLine &m_line;
    const Output &m_out;
    VMToolsEngine *m_engine = nullptr;
    int m_exitCode = ExitCode::Success;
    OsImage m_image;
    HwProfile m_profile;
    bool m_imageDerived = false;
};
