#pragma once

#include <QByteArray>
#include <QFileInfo>
#include <QJsonDocument>
#include <QString>
#include <QStringList>

#include <functional>

// Whole-file read: ok is false (and data empty) when the file cannot be opened or read.
struct ReadResult
{
    QByteArray data;
    bool ok = false;
};

// status: 0 read and parsed, 1 the file could not be read, 2 the text is not valid JSON.
struct JsonReadResult
{
    QJsonDocument document;
    int status = 0;
};

ReadResult readFile(const QString &path);
JsonReadResult readJsonFile(const QString &path);

// Calls callback for every non-hidden file below root, at any depth; an empty filter
// list takes every name.
void walkFiles(const QString &root, const QStringList &nameFilters,
               const std::function<void(const QFileInfo &)> &callback);

// Copies a file or a directory tree. Hidden entries and symbolic links inside a
// directory are skipped, an existing destination file fails the copy, and the first
// failure stops the copy.
bool copyRecursively(const QString &source, const QString &destination);
