#include "filecopy.h"

#include <QDir>

#include <windows.h>

bool copyFileFast(const QString &source, const QString &destination, QString *errorText)
{
    const std::wstring from = QDir::toNativeSeparators(source).toStdWString();
    const std::wstring to = QDir::toNativeSeparators(destination).toStdWString();
    // bFailIfExists keeps the copy semantics: an existing destination fails.
    if (CopyFileW(from.c_str(), to.c_str(), TRUE))
        return true;
    const DWORD error = GetLastError();
    wchar_t *text = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                   nullptr, error, 0, reinterpret_cast<wchar_t *>(&text), 0, nullptr);
    *errorText = text ? QString::fromWCharArray(text).trimmed() : QString::number(error);
    LocalFree(text);
    return false;
}
