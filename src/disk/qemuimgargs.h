#pragma once

#include <QString>
#include <QStringList>

// Argument lists of the qemu-img runs that the disk work needs, kept apart from running
// the tool so that every caller spells them the same way.
namespace QemuImgArgs {

QStringList createOverlay(const QString &backingFile, const QString &targetFile);
QStringList createDisk(const QString &path, qint64 sizeMegabytes);
QStringList convertToQcow2(const QString &sourceFile, const QString &targetFile);
// qemu-img info as JSON, the input read as a VMDK whatever the file claims.
QStringList vmdkInfo(const QString &diskFile);
QStringList listSnapshots(const QString &diskFile);
QStringList deleteSnapshot(const QString &name, const QString &diskFile);
QStringList resize(const QString &path, qint64 sizeMegabytes);
// Sizes are passed to qemu-img in MiB: 8192 becomes "8192M".
QString megabytes(qint64 sizeMegabytes);

} // namespace QemuImgArgs
