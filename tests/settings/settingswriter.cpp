// Usage: settingswriter FILE KEY COUNT
// Sets KEY to 0..COUNT-1 in FILE, reading the file back after every write. Exits with 1
// as soon as a read finds the file missing or not a JSON object, which would mean that a
// concurrent writer exposed a partial file.
#include "fileutils.h"
#include "jsonsettings.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4)
        return 2;
    const QString path = args.at(1);
    const QString key = args.at(2);
    const int count = args.at(3).toInt();

    JsonSettings store(path, false);
    for (int i = 0; i < count; ++i) {
        store.setValue(key, i);
        const JsonReadResult read = readJsonFile(path);
        if (read.status != 0 || !read.document.isObject()) {
            QTextStream(stderr) << "unreadable after write " << i << ": status " << read.status << '\n';
            return 1;
        }
    }
    return 0;
}
