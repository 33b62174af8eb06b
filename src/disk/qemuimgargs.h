#pragma once

#include <QString>
#include <QStringList>

// Argument lists of the qemu-img runs that the disk work needs, and the parser of its
// snapshot table, kept apart from running the tool.
namespace QemuImgArgs {

QStringList createOverlay(const QString &backingFile, const QString &targetFile);
QStringList createDisk(const QString &path, qint64 sizeMegabytes);
QStringList convertToQcow2(const QString &sourceFile, const QString &targetFile);
QStringList listSnapshots(const QString &diskFile);
QStringList deleteSnapshot(const QString &name, const QString &diskFile);
QStringList resize(const QString &path, qint64 sizeMegabytes);
// Sizes are passed to qemu-img in MiB: 8192 becomes "8192M".
QString megabytes(qint64 sizeMegabytes);

} // namespace QemuImgArgs
