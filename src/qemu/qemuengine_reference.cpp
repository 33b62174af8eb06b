// QEMUEngine's first-time preparation of an image's reference disks: the folder that every
// device of the image is made from. It is shared across processes and outlives them, so it
// is either whole or not there: work happens under a lock and under temporary names.

#include "qemuengine.h"

#include "commandrunner.h"
#include "logging.h"
#include "qemuimgargs.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>

namespace {

// Another process may be converting a large image; waiting is better than a second copy.
constexpr int PreparationWaitMs = 20 * 60 * 1000;

QString canonical(const QString &path)
{
    return QFileInfo(path).canonicalFilePath();
}

} // namespace

bool QEMUEngine::isSafeVmdk(const QString &path)
{
    // A text descriptor can name any host file as its extent, and qemu-img opens extents
    // while it inspects: refuse those before qemu-img sees them.
    const QFileInfo info(path);
    QFile file(path);
    if (info.isSymLink() || !info.isFile() || !file.open(QIODevice::ReadOnly) || file.read(4) != "KDMV") {
        vmCritical("Refusing disk image", path, ": not a sparse VMDK file");
        return false;
    }
    const CommandResult result = runCommand(m_qemuImgPath, QemuImgArgs::vmdkInfo(path), Quiet);
    const QJsonObject disk = QJsonDocument::fromJson(result.output.toUtf8()).object();
    const QJsonObject data = disk.value(QStringLiteral("format-specific")).toObject()
                                     .value(QStringLiteral("data")).toObject();
    const QString type = data.value(QStringLiteral("create-type")).toString();
    bool selfContained = result.succeeded() && !disk.contains(QStringLiteral("backing-filename"))
                         && (type == QLatin1String("monolithicSparse") || type == QLatin1String("streamOptimized"));
    for (const QJsonValue &extent : data.value(QStringLiteral("extents")).toArray())
        selfContained = selfContained
                        && canonical(extent.toObject().value(QStringLiteral("filename")).toString()) == canonical(path);
    if (!selfContained)
        vmCritical("Refusing disk image", path, ": only a single-file VMDK without a backing file is accepted");
    return selfContained;
}

bool QEMUEngine::convertToQcow2(const QString &sourceFile, const QString &targetFile)
{
    if (!QFileInfo::exists(sourceFile)) {
        vmCritical("Disk file not found:", sourceFile);
        return false;
    }
    // Written aside and renamed: a reference disk cut short must never look like a whole one.
    const QString partial = targetFile + QStringLiteral(".partial");
    QFile::remove(partial);
    const CommandResult result = runCommand(m_qemuImgPath, QemuImgArgs::convertToQcow2(sourceFile, partial));
    if (!result.succeeded() || !QFileInfo::exists(partial) || !QFile::rename(partial, targetFile)) {
        vmCritical("Failed to convert", sourceFile, "to", targetFile, result.error);
        QFile::remove(partial);
        return false;
    }
    return true;
}

bool QEMUEngine::prepareReferenceDisks(const QString &archive, const Version &first, const Version &second,
                                       bool withData)
{
    const QDir reference(QDir::cleanPath(systemImageDirectory(first, second)));
    QDir().mkpath(QFileInfo(reference.absolutePath()).absolutePath());
    QLockFile lock(reference.absolutePath() + QStringLiteral(".lock"));
    // Only a dead owner frees the lock: a conversion may hold it for minutes.
    lock.setStaleLockTime(0);
    if (!lock.tryLock()) {
        // A lock file that cannot be made at all (a file where a folder should be, no right
        // to write) never comes free: waiting for it would only hide the cause.
        if (lock.error() != QLockFile::LockFailedError) {
            vmCritical("Cannot make the lock file of", reference.absolutePath());
            return false;
        }
        vmInfo("Waiting for another process to prepare", reference.absolutePath());
        if (!lock.tryLock(PreparationWaitMs)) {
            vmCritical("Another process is still preparing", reference.absolutePath());
            return false;
        }
    }
    if (!extractSystemImage(archive, first, second)) {
        vmCritical("Failed to extract OVA");
        return false;
    }
    const auto convert = [&](const QString &vmdk, const QString &qcow2) {
        const QString target = reference.absoluteFilePath(qcow2);
        const QString source = reference.absoluteFilePath(vmdk);
        return QFileInfo::exists(target) || (isSafeVmdk(source) && convertToQcow2(source, target));
    };
    if (!convert(QStringLiteral("system.vmdk"), QStringLiteral("system.qcow2"))) {
        vmCritical("Failed to get system disk info");
        return false;
    }
    if (withData && !convert(QStringLiteral("data.vmdk"), QStringLiteral("data.qcow2"))) {
        vmCritical("Failed to get data disk info");
        return false;
    }
    return true;
}
