// A stand-in for the programs the library runs (qemu-img, qemu-system-x86_64). Tests copy
// it under the real program name and describe its behaviour in "<own path>.rules.json":
//
// { "passthrough": "/usr/bin/qemu-img",   run this program instead when no rule matches
//   "calls": true,                         append the arguments (tab-joined) to "<own path>.calls"
//   "rules": [ { "match": ["convert", "data.vmdk"], "stdout": "", "stderr": "", "exit": 0,
//                "sleep_ms": 0, "create_file_arg": -1, "times": 1 } ] }
//
// A rule matches when every "match" text occurs in the arguments joined with spaces. The
// first matching rule applies; "times" limits it to its first N matching calls (counted in
// "<own path>.count.<rule index>"). Without a rules file it prints nothing and exits 0.
// A rules file it cannot use is reported on stderr with exit code 3.

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QProcess>
#include <QThread>

#include <cstdio>

#ifdef Q_OS_WIN
#include <fcntl.h>
#include <io.h>
#else
#include <unistd.h>
#include <vector>
#endif

namespace {

constexpr int BadRules = 3;

struct Failure
{
    QString message;
};

void writeTo(FILE *stream, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

[[noreturn]] void fail(const QString &message)
{
    writeTo(stderr, QStringLiteral("qvfakeprogram: %1\n").arg(message));
    std::exit(BadRules);
}

QJsonValue field(const QJsonObject &object, const char *key, QJsonValue::Type type)
{
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isUndefined() && value.type() != type)
        fail(QStringLiteral("\"%1\" has the wrong type").arg(QLatin1String(key)));
    return value;
}

int intField(const QJsonObject &object, const char *key, int fallback)
{
    const QJsonValue value = field(object, key, QJsonValue::Double);
    return value.isUndefined() ? fallback : value.toInt(fallback);
}

bool matches(const QJsonObject &rule, const QString &joined)
{
    const QJsonArray needles = field(rule, "match", QJsonValue::Array).toArray();
    for (const QJsonValue &needle : needles) {
        if (!needle.isString())
            fail(QStringLiteral("\"match\" holds a value that is not a string"));
        if (!joined.contains(needle.toString()))
            return false;
    }
    return true;
}

// Counts a use of a rule limited by "times"; false once it is used up.
bool takeUse(const QString &countPath, int times)
{
    QFile file(countPath);
    int used = 0;
    if (file.open(QIODevice::ReadOnly))
        used = file.readAll().trimmed().toInt();
    file.close();
    if (used >= times)
        return false;
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        fail(QStringLiteral("cannot write %1").arg(countPath));
    file.write(QByteArray::number(used + 1));
    return true;
}

void recordCall(const QString &callsPath, const QStringList &arguments)
{
    QFile file(callsPath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        fail(QStringLiteral("cannot write %1").arg(callsPath));
    file.write(arguments.join(QLatin1Char('\t')).toUtf8() + '\n');
}

int runRule(const QJsonObject &rule, const QStringList &arguments)
{
    // Read every field first, so a bad rule fails before it has any effect.
    const QString out = field(rule, "stdout", QJsonValue::String).toString();
    const QString err = field(rule, "stderr", QJsonValue::String).toString();
    const int exitCode = intField(rule, "exit", 0);
    const int sleepMs = intField(rule, "sleep_ms", 0);
    QString fileToCreate;
    const QJsonValue fileArg = field(rule, "create_file_arg", QJsonValue::Double);
    if (!fileArg.isUndefined()) {
        const int index = fileArg.toInt();
        const int position = index < 0 ? arguments.size() + index : index;
        if (position < 0 || position >= arguments.size())
            fail(QStringLiteral("create_file_arg %1 is out of range").arg(index));
        fileToCreate = arguments.at(position);
    }

    writeTo(stdout, out);
    writeTo(stderr, err);
    if (!fileToCreate.isEmpty()) {
        QFile file(fileToCreate);
        if (!file.open(QIODevice::WriteOnly))
            fail(QStringLiteral("cannot create %1").arg(fileToCreate));
    }
    if (sleepMs > 0)
        QThread::msleep(ulong(sleepMs));
    return exitCode;
}

int passThrough(const QString &program, const QStringList &arguments)
{
#ifndef Q_OS_WIN
    // Replacing this process keeps the pid, the signals and the exit code the real program's.
    QList<QByteArray> encoded{QFile::encodeName(program)};
    for (const QString &argument : arguments)
        encoded.append(QFile::encodeName(argument));
    std::vector<char *> argv;
    for (QByteArray &item : encoded)
        argv.push_back(item.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    fail(QStringLiteral("cannot run %1").arg(program));
#else
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(-1) || process.exitStatus() != QProcess::NormalExit)
        fail(QStringLiteral("cannot run %1").arg(program));
    return process.exitCode();
#endif
}

} // namespace

int main(int argc, char *argv[])
{
#ifdef Q_OS_WIN
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
#endif
    QCoreApplication app(argc, argv);
    const QString self = QCoreApplication::applicationFilePath();
    const QStringList arguments = QCoreApplication::arguments().mid(1);

    QFile rulesFile(self + QLatin1String(".rules.json"));
    if (!rulesFile.exists())
        return 0;
    if (!rulesFile.open(QIODevice::ReadOnly))
        fail(QStringLiteral("cannot read %1").arg(rulesFile.fileName()));
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(rulesFile.readAll(), &error);
    if (error.error != QJsonParseError::NoError)
        fail(QStringLiteral("bad rules file: %1").arg(error.errorString()));
    if (!document.isObject())
        fail(QStringLiteral("the rules file does not hold an object"));
    const QJsonObject config = document.object();

    // Stand-ins of one name may run side by side; the lock keeps their record and count
    // files consistent. Runs that keep no files do not wait for it.
    QLockFile lock(self + QLatin1String(".lock"));
    auto ensureLocked = [&lock] {
        if (!lock.isLocked() && !lock.tryLock(10000))
            fail(QStringLiteral("cannot lock %1").arg(lock.error()));
    };

    if (field(config, "calls", QJsonValue::Bool).toBool()) {
        ensureLocked();
        recordCall(self + QLatin1String(".calls"), arguments);
    }

    const QString joined = arguments.join(QLatin1Char(' '));
    const QJsonArray rules = field(config, "rules", QJsonValue::Array).toArray();
    for (int i = 0; i < rules.size(); ++i) {
        if (!rules.at(i).isObject())
            fail(QStringLiteral("rule %1 is not an object").arg(i));
        const QJsonObject rule = rules.at(i).toObject();
        if (!matches(rule, joined))
            continue;
        const int times = intField(rule, "times", -1);
        if (times >= 0) {
            ensureLocked();
            if (!takeUse(self + QLatin1String(".count.") + QString::number(i), times))
                continue;
        }
        if (lock.isLocked())
            lock.unlock();
        return runRule(rule, arguments);
    }
    if (lock.isLocked())
        lock.unlock();

    const QString passthrough = field(config, "passthrough", QJsonValue::String).toString();
    if (!passthrough.isEmpty())
        return passThrough(passthrough, arguments);
    return 0;
}
