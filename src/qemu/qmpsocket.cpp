#include "qmpsocket.h"

#include "logging.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace {
// sizeof(sockaddr_un::sun_path) on Linux, less the terminating zero.
constexpr int MaxSocketPathBytes = 107;
}

QString qmpSocketPath(const QString &devicePath)
{
    const QString inDevice = QDir(devicePath).absoluteFilePath(QStringLiteral("qmp.sock"));
    if (QFile::encodeName(inDevice).size() <= MaxSocketPathBytes)
        return inDevice;

    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    const QString folder = QDir(runtime).absoluteFilePath(QStringLiteral("quorvel-qmp"));
    const QByteArray digest = QCryptographicHash::hash(QFile::encodeName(QDir(devicePath).absolutePath()),
                                                       QCryptographicHash::Sha1).toHex().left(16);
    const QString socket = folder + QLatin1Char('/') + QString::fromLatin1(digest) + QStringLiteral(".sock");
    if (!QDir().mkpath(folder) || !makeOwnerOnly(folder))
        vmWarning("Cannot make", folder, "private to its owner");
    vmDebug("The path of", devicePath, "is too long for a socket: its QMP socket is", socket);
    return socket;
}

bool makeOwnerOnly(const QString &folder)
{
    return QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}
