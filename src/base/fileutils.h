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
// Writes under a temporary name and renames, so the file is the old one or the new one.
bool writeFileAtomically(const QString &path, const QByteArray &data);
JsonReadResult readJsonFile(const QString &path);

// Calls callback for every file below root, hidden ones included, at any depth; an empty
// filter list takes every name.
void walkFiles(const QString &root, const QStringList &nameFilters,
               const std::function<void(const QFileInfo &)> &callback);

// True when name, joined to a folder, names an entry directly inside it: not empty, no
// separator or drive, not absolute, and not "." or ".." or any other hidden name.
bool isPlainEntryName(const QString &name);

// Copies a file or a directory tree. Hidden entries and symbolic links inside a
// directory are skipped, an existing destination file fails the copy, and the first
// failure stops the copy.
bool copyRecursively(const QString &source, const QString &destination);
