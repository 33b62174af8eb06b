#pragma once

#include "qemuengine.h"
#include "qemumachine.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QTime>
#include <QUuid>

// Writes `count` stopped devices ("device-0" ...) of one image into the engine's devices
// directory, as the machine itself saves them, for the benchmarks that need a populated home.
inline bool createBenchDevices(QEMUEngine &engine, int count)
{
    HwProfile profile;
    profile.source = HwProfile::Source::USER;
    profile.ramSize = 2048;
    profile.cpuCount = 2;
    profile.dataDiskSize = 8192;
    OsImage image;
    image.name = QStringLiteral("bench");
    image.buildDate = QDateTime(QDate(2024, 1, 1), QTime(0, 0), Qt::UTC);
    image.osVersion = parseVersion(QStringLiteral("11.0.0"));
    image.imageVersion = parseVersion(QStringLiteral("1.0.0"));
    image.arch = QStringLiteral("x86_64");
    for (int i = 0; i < count; ++i) {
        const QString path = engine.devicePath(QStringLiteral("device-%1").arg(i));
        profile.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
        image.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
        if (!QDir().mkpath(path) || !QEMUMachine(&engine, path, profile, image).save())
            return false;
    }
    return true;
}
