// Feeds arbitrary bytes to extractOva as an archive and aborts if anything is written
// outside the destination directory.
#include "ovaextractor.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void silence(QtMsgType, const QMessageLogContext &, const QString &) {}

QStringList entriesOutside(const QString &parent, const QString &destName)
{
    QStringList entries;
    QDirIterator it(parent, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString relative = QDir(parent).relativeFilePath(it.next());
        if (relative != destName && !relative.startsWith(destName + QLatin1Char('/')))
            entries << relative;
    }
    entries.sort();
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool silenced = (qInstallMessageHandler(silence), true);
    Q_UNUSED(silenced);

    QTemporaryDir parent;
    if (!parent.isValid())
        std::abort();
    const QString archive = parent.filePath(QStringLiteral("input.ova"));
    QFile file(archive);
    if (!file.open(QIODevice::WriteOnly)
        || file.write(reinterpret_cast<const char *>(data), qint64(size)) != qint64(size))
        std::abort();
    file.close();

    const QString destName = QStringLiteral("dest");
    const QStringList before = entriesOutside(parent.path(), destName);
    const int result = extractOva(archive, parent.filePath(destName));
    if (result < 0 || result > 11 || result == 10) {
        std::fprintf(stderr, "unexpected result %d\n", result);
        std::abort();
    }
    const QStringList after = entriesOutside(parent.path(), destName);
    if (after != before) {
        std::fprintf(stderr, "written outside the destination: %s\n", qPrintable(after.join(QLatin1Char(' '))));
        std::abort();
    }
    return 0;
}
