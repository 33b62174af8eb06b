#pragma once

#include <QString>

// Copies one file with the fastest means the platform offers (a reflink or an in-kernel
// copy on Linux, CopyFileW on Windows). Like QFile::copy, an existing destination makes the
// copy fail; a failed copy leaves no partial destination. On failure errorText says why.
bool copyFileFast(const QString &source, const QString &destination, QString *errorText);
