#pragma once

#include <QByteArray>
#include <QDebug>
#include <QLoggingCategory>
#include <QString>
#include <QStringList>

#include <type_traits>

// Every line of the library goes through here, so hosts can filter on one category
// and tests can assert exact text: the parts are joined with single spaces, unquoted.
Q_DECLARE_LOGGING_CATEGORY(lcVMTools)

namespace Log {

inline constexpr char Tag[] = "[VMTools]";

inline QString piece(const QString &s) { return s; }
inline QString piece(const char *s) { return QString::fromUtf8(s); }
inline QString piece(const QByteArray &b) { return QString::fromUtf8(b); }
inline QString piece(QChar c) { return QString(c); }
inline QString piece(bool b) { return b ? QStringLiteral("true") : QStringLiteral("false"); }
// Numbers. A bool takes the exact overload above, which wins over this template.
template<typename T, typename = std::enable_if_t<std::is_arithmetic_v<T>>>
QString piece(T v) { return QString::number(v); }

// The text QDebug prints for a value: strings quoted, lists in brackets.
template<typename T>
QString debugText(const T &value)
{
    QString text;
    QDebug(&text) << value;
    return text.trimmed();
}

void write(QtMsgType type, const QStringList &parts);

template<typename... A> void debug(const A &...a) { write(QtDebugMsg, {piece(a)...}); }
template<typename... A> void info(const A &...a) { write(QtInfoMsg, {piece(a)...}); }
template<typename... A> void warning(const A &...a) { write(QtWarningMsg, {piece(a)...}); }
template<typename... A> void critical(const A &...a) { write(QtCriticalMsg, {piece(a)...}); }

} // namespace Log

// Lines of the engine, qemu and process code carry the "[VMTools]" tag.
template<typename... A> void vmDebug(const A &...a) { Log::debug(Log::Tag, a...); }
template<typename... A> void vmInfo(const A &...a) { Log::info(Log::Tag, a...); }
template<typename... A> void vmWarning(const A &...a) { Log::warning(Log::Tag, a...); }
template<typename... A> void vmCritical(const A &...a) { Log::critical(Log::Tag, a...); }
