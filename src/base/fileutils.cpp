#include "fileutils.h"

#include "logging.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonParseError>
#include <QRegularExpression>
#include <QSaveFile>

ReadResult readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        Log::warning("Failed to open", path, file.errorString());
        return {};
    }
    ReadResult result;
    result.data = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        Log::warning("Failed to read", path, file.errorString());
        return {};
    }
    result.ok = true;
    return result;
}

bool writeFileAtomically(const QString &path, const QByteArray &data)
{
    // The commit renames whatever reached the disk, even after a short write or a failed
    // flush (a full disk): both are checked first, so that the old file stays.
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(data) == data.size() && file.flush() && file.commit())
        return true;
    Log::critical("Failed to write", path, file.errorString());
    return false;
}

JsonReadResult readJsonFile(const QString &path)
{
    const ReadResult read = readFile(path);
    if (!read.ok)
        return {QJsonDocument(), 1};
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(read.data, &error);
    if (error.error != QJsonParseError::NoError) {
        Log::warning("Failed to read json from", path, error.errorString());
        return {QJsonDocument(), 2};
    }
    return {document};
}

void walkFiles(const QString &root, const QStringList &nameFilters,
               const std::function<void(const QFileInfo &)> &callback)
{
    QDirIterator it(root, nameFilters, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        callback(QFileInfo(it.next()));
}

bool isPlainEntryName(const QString &name)
{
    // Every absolute path, a drive, a UNC or a resource path holds one of these characters.
    static const QRegularExpression outside(QStringLiteral("[/\\\\:]"));
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.')) && !name.contains(outside);
}

bool copyRecursively(const QString &source, const QString &destination)
{
    const QFileInfo info(source);
    if (info.isFile()) {
        QDir().mkpath(QFileInfo(destination).absolutePath());
        return QFile::copy(source, destination);
    }
    if (info.isDir()) {
        const QStringList entries = QDir(source).entryList(
                QDir::Files | QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot);
        for (const QString &entry : entries) {
            const QString from = source + QLatin1Char('/') + entry;
            const QString to = destination + QLatin1Char('/') + entry;
            if (!copyRecursively(from, to)) {
                Log::critical("Failed to copy", "from", from, "to", to);
                return false;
            }
        }
        return true;
    }
    Log::critical("Failed to copy", source, ". It's not a file nor a dir");
    return false;
}
