// Stands in for qemu-img and qemu-system-x86_64. Tests copy it under the real name and script
// it through "<own path>.rules.json":
// { "passthrough": "/usr/bin/qemu-img",  run this program when no rule matches
//   "calls": true,                        append the tab-joined arguments to "<own path>.calls"
//   "rules": [ { "match": ["convert", "data.vmdk"], "stdout": "", "stderr": "", "exit": 0,
//                "sleep_ms": 0, "create_file_arg": -1, "times": 1 } ] }
// A rule matches when each "match" text occurs in the space-joined arguments; the first match
// applies. "times" limits a rule to its first N uses (counted in "<own path>.count.<index>").
// Without a rules file it prints nothing and exits 0; a broken rules file or rule exits 3.
#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QThread>

#include <cstdio>
#include <unistd.h>
#include <vector>

static void writeTo(FILE *stream, const QJsonValue &text)
{
    const QByteArray bytes = text.toString().toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString self = QCoreApplication::applicationFilePath();
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    QFile rulesFile(self + QLatin1String(".rules.json"));
    if (!rulesFile.open(QIODevice::ReadOnly))
        return 0;
    const QJsonDocument document = QJsonDocument::fromJson(rulesFile.readAll());
    if (!document.isObject())
        return 3;
    const QJsonObject config = document.object();
    // Stand-ins of one name may run side by side; the lock keeps the record and count files whole.
    QLockFile lock(self + QLatin1String(".lock"));
    if (config.value(QLatin1String("calls")).toBool()) {
        QFile calls(self + QLatin1String(".calls"));
        if (!lock.tryLock(10000) || !calls.open(QIODevice::WriteOnly | QIODevice::Append))
            return 3;
        calls.write(arguments.join(QLatin1Char('\t')).toUtf8() + '\n');
    }
    const QString joined = arguments.join(QLatin1Char(' '));
    const QJsonArray rules = config.value(QLatin1String("rules")).toArray();
    for (int i = 0; i < rules.size(); ++i) {
        const QJsonObject rule = rules.at(i).toObject();
        bool matches = true;
        for (const QJsonValue &needle : rule.value(QLatin1String("match")).toArray())
            matches = matches && joined.contains(needle.toString());
        if (!matches)
            continue;
        if (rule.contains(QLatin1String("times"))) {
            QFile count(self + QLatin1String(".count.") + QString::number(i));
            if (!lock.isLocked() && !lock.tryLock(10000))
                return 3;
            const int used = count.open(QIODevice::ReadOnly) ? count.readAll().toInt() : 0;
            count.close();
            if (used >= rule.value(QLatin1String("times")).toInt())
                continue;
            if (!count.open(QIODevice::WriteOnly) || count.write(QByteArray::number(used + 1)) < 0)
                return 3;
        }
        lock.unlock();
        writeTo(stdout, rule.value(QLatin1String("stdout")));
        writeTo(stderr, rule.value(QLatin1String("stderr")));
        if (rule.contains(QLatin1String("create_file_arg"))) {
            const int index = rule.value(QLatin1String("create_file_arg")).toInt();
            QFile file(arguments.value(index < 0 ? arguments.size() + index : index));
            if (file.fileName().isEmpty() || !file.open(QIODevice::WriteOnly))
                return 3;
        }
        QThread::msleep(ulong(qMax(0, rule.value(QLatin1String("sleep_ms")).toInt())));
        return rule.value(QLatin1String("exit")).toInt();
    }
    lock.unlock();
    const QString passthrough = config.value(QLatin1String("passthrough")).toString();
    if (passthrough.isEmpty())
        return 0;
    // exec keeps the pid, the signals and the exit code the real program's.
    QList<QByteArray> encoded;
    std::vector<char *> execArgs;
    for (const QString &argument : QStringList(passthrough) + arguments)
        encoded.append(QFile::encodeName(argument));
    for (QByteArray &item : encoded)
        execArgs.push_back(item.data());
    execArgs.push_back(nullptr);
    ::execv(execArgs[0], execArgs.data());
    return 3;
}
