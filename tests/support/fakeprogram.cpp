#include "fakeprogram.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

FakeProgram::FakeProgram(const QString &binDir, const QString &programName)
{
    QString name = programName;
#ifdef Q_OS_WIN
    if (!name.endsWith(QLatin1String(".exe"), Qt::CaseInsensitive))
        name += QLatin1String(".exe");
#endif
    QDir().mkpath(binDir);
    m_path = QDir(binDir).absoluteFilePath(name);
    // A copy, not a link: the process table then shows the program under this name.
    QFile::remove(m_path);
    m_valid = QFile::copy(QStringLiteral(QV_FAKE_PROGRAM_PATH), m_path)
            && QFile::setPermissions(m_path, QFile::permissions(m_path) | QFile::ExeOwner | QFile::WriteOwner);
}

void FakeProgram::setRules(const QJsonObject &rules)
{
    const QDir dir = QFileInfo(m_path).dir();
    for (const QString &count : dir.entryList({QFileInfo(m_path).fileName() + QLatin1String(".count.*")}))
        QFile::remove(dir.absoluteFilePath(count));
    // Written atomically, since a stand-in may be reading the rules at this moment.
    QSaveFile file(m_path + QLatin1String(".rules.json"));
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(rules).toJson()) < 0 || !file.commit())
        qWarning("FakeProgram: cannot write %s", qPrintable(file.fileName()));
}

QStringList FakeProgram::calls() const
{
    QFile file(m_path + QLatin1String(".calls"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    lines.removeLast();  // the text ends with a newline
    return lines;
}
