#include "testfiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <csignal>
#include <sys/resource.h>

bool writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QByteArray fileContents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject jsonFileObject(const QString &path)
{
    return QJsonDocument::fromJson(fileContents(path)).object();
}

QByteArray fileHash(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(&file);
    return hash.result().toHex();
}

QMap<QString, QByteArray> treeHashes(const QString &directory)
{
    QMap<QString, QByteArray> hashes;
    QDirIterator it(directory, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        hashes.insert(QDir(directory).relativeFilePath(path), fileHash(path));
    }
    return hashes;
}

int withFileSizeLimit(qint64 bytes, const std::function<int()> &f)
{
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit limit{bytes < 0 ? saved.rlim_cur : rlim_t(bytes), saved.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    const int result = setrlimit(RLIMIT_FSIZE, &limit) == 0 ? f() : -1;
    setrlimit(RLIMIT_FSIZE, &saved);
    return result;
}
