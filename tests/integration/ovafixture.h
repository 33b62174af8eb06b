#pragma once

#include "hwprofile.h"
#include "osimage.h"
#include "version.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QUrl>
#include <QUuid>

// Builds a small OVA archive the way images are shipped (VMDK disks and an .ovf, packed
// with GNU tar) and describes devices made from it. Shared by the device tests and the
// deployment benchmark, which both need real disks for qemu-img to convert.
namespace OvaFixture {

inline bool run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
        return false;
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

// Writes <workDir>/image.ova; false when a tool fails.
inline bool makeOva(const QString &qemuImg, const QString &workDir, QString *ovaPath)
{
    const QString parts = workDir + QStringLiteral("/ova-parts");
    if (!QDir().mkpath(parts))
        return false;
    const QList<QPair<QString, QString>> disks = {{QStringLiteral("system.vmdk"), QStringLiteral("64M")},
                                                  {QStringLiteral("data.vmdk"), QStringLiteral("32M")},
                                                  {QStringLiteral("sdcard.vmdk"), QStringLiteral("4M")}};
    for (const auto &disk : disks) {
        if (!run(qemuImg, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                           QStringLiteral("vmdk"), parts + QLatin1Char('/') + disk.first, disk.second}))
            return false;
    }
    QFile ovf(parts + QStringLiteral("/device.ovf"));
    if (!ovf.open(QIODevice::WriteOnly))
        return false;
    ovf.write("<?xml version=\"1.0\"?>\n<Envelope><References>"
              "<File ovf:href=\"system.vmdk\"/><File ovf:href=\"data.vmdk\"/>"
              "<File ovf:href=\"sdcard.vmdk\"/></References></Envelope>\n");
    ovf.close();
    *ovaPath = workDir + QStringLiteral("/image.ova");
    return run(QStringLiteral("tar"), {QStringLiteral("-cf"), *ovaPath, QStringLiteral("-C"), parts,
                                       QStringLiteral("device.ovf"), QStringLiteral("system.vmdk"),
                                       QStringLiteral("data.vmdk"), QStringLiteral("sdcard.vmdk")});
}

inline OsImage image(const QString &ovaPath)
{
    OsImage image;
    image.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    image.name = QStringLiteral("fixture");
    image.buildDate = QDateTime(QDate(2024, 1, 2), QTime(3, 4), Qt::UTC);
    image.osVersion = parseVersion(QStringLiteral("7.1.0"));
    image.imageVersion = parseVersion(QStringLiteral("1.0.0"));
    image.arch = QStringLiteral("x86_64");
    // A file: URL is kept as it is when the device is loaded again.
    image.imageUri = QUrl::fromLocalFile(ovaPath).toString();
    return image;
}

inline HwProfile profile(qint64 sdCardMegabytes)
{
    HwProfile profile;
    profile.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    profile.ramSize = 256;
    profile.cpuCount = 1;
    profile.sdCardSize = sdCardMegabytes;
    return profile;
}

inline QByteArray fileHash(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(&file);
    return hash.result();
}

// Relative path -> content hash of every file under a directory (empty when it is absent).
inline QMap<QString, QByteArray> treeHashes(const QString &directory)
{
    QMap<QString, QByteArray> hashes;
    QDirIterator it(directory, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        hashes.insert(QDir(directory).relativeFilePath(path), fileHash(path));
    }
    return hashes;
}

inline qint64 modifiedMs(const QString &path)
{
    return QFileInfo(path).lastModified().toMSecsSinceEpoch();
}

} // namespace OvaFixture
