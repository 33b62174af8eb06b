#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QMap>
#include <QString>

// File helpers that every test folder shares.
bool writeFile(const QString &path, const QByteArray &data);  // makes the parent folders
QByteArray fileContents(const QString &path);                  // empty when unreadable
QJsonObject jsonFileObject(const QString &path);
QByteArray fileHash(const QString &path);                      // empty when unreadable
// Relative path -> content hash of every file below a folder, hidden ones included.
QMap<QString, QByteArray> treeHashes(const QString &directory);
