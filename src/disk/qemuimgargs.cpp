#include "qemuimgargs.h"

namespace QemuImgArgs {

QString megabytes(qint64 sizeMegabytes)
{
    return QString::number(sizeMegabytes) + QLatin1Char('M');
}

QStringList createOverlay(const QString &backingFile, const QString &targetFile)
{
    return {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"),
            QStringLiteral("-b"), backingFile, QStringLiteral("-F"), QStringLiteral("qcow2"), targetFile};
}

QStringList createDisk(const QString &path, qint64 sizeMegabytes)
{
    return {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"), path,
            megabytes(sizeMegabytes)};
}

QStringList convertToQcow2(const QString &sourceFile, const QString &targetFile)
{
    // The input format is pinned: probing would let a file name its own format.
    return {QStringLiteral("convert"), QStringLiteral("-f"), QStringLiteral("vmdk"), QStringLiteral("-O"),
            QStringLiteral("qcow2"), sourceFile, targetFile};
}

QStringList vmdkInfo(const QString &diskFile)
{
    return {QStringLiteral("info"), QStringLiteral("--output=json"), QStringLiteral("-f"), QStringLiteral("vmdk"),
            diskFile};
}

QStringList listSnapshots(const QString &diskFile)
{
    return {QStringLiteral("snapshot"), QStringLiteral("-l"), diskFile};
}

QStringList deleteSnapshot(const QString &name, const QString &diskFile)
{
    return {QStringLiteral("snapshot"), QStringLiteral("-d"), name, diskFile};
}

QStringList resize(const QString &path, qint64 sizeMegabytes)
{
    return {QStringLiteral("resize"), path, megabytes(sizeMegabytes)};
}

} // namespace QemuImgArgs
