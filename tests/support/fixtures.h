#pragma once

#include "hwprofile.h"
#include "osimage.h"

#include <QList>
#include <QString>
#include <QStringList>

// Descriptions, archives and processes that tests build devices from.
HwProfile testProfile(qint64 ramMegabytes = 256, int cpus = 1, qint64 sdCardMegabytes = 0);
OsImage testImage(const QString &imageUri = QStringLiteral("file:///nonexistent/test.ova"),
                  const QString &osVersion = QStringLiteral("7.1.0"),
                  const QString &arch = QStringLiteral("x86_64"));

// Runs a tool to its end (bounded); true when it exited with 0.
bool runTool(const QString &program, const QStringList &arguments, int timeoutMs = 60000);
// Writes <workDir>/image.ova the way images ship: VMDK disks made by qemu-img (system 64 MiB,
// data 32 MiB stream-optimized, SD card 4 MiB) and an .ovf, packed with GNU tar. False when a tool fails.
bool makeOva(const QString &qemuImg, const QString &workDir, QString *ovaPath);

// Live processes whose executable, or the link they were started through, lies below dir
// (the stand-ins and QEMU links a test installed), and their clean-up.
QList<qint64> processesBelow(const QString &dir);
void killProcessesBelow(const QString &dir);
