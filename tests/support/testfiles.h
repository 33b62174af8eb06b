#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

#include <functional>

// File helpers that every test folder shares.
bool writeFile(const QString &path, const QByteArray &data);  // makes the parent folders
QByteArray fileContents(const QString &path);                  // empty when unreadable
QJsonObject jsonFileObject(const QString &path);
QByteArray fileHash(const QString &path);                      // empty when unreadable
// Relative path -> content hash of every file below a folder, hidden ones included.
QMap<QString, QByteArray> treeHashes(const QString &directory);
// Runs f while writes past bytes fail with EFBIG, the signal that would end the process
// ignored; a negative bytes leaves the limit as it is.
int withFileSizeLimit(qint64 bytes, const std::function<int()> &f);
