#include "fixtures.h"

#include "version.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>
#include <QUuid>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/types.h>
#endif

HwProfile testProfile(qint64 ramMegabytes, int cpus, qint64 sdCardMegabytes)
{
    HwProfile hw;
    hw.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    hw.productName = QStringLiteral("test");
    hw.ramSize = ramMegabytes;
    hw.cpuCount = cpus;
    hw.dataDiskSize = 64;
    hw.sdCardSize = sdCardMegabytes;
    return hw;
}

OsImage testImage(const QString &imageUri, const QString &osVersion, const QString &arch)
{
    OsImage os;
    os.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    os.name = QStringLiteral("Test image");
    os.buildDate = QDateTime(QDate(2023, 5, 17), QTime(10, 0), Qt::UTC);
    os.osVersion = parseVersion(osVersion);
    os.imageVersion = parseVersion(QStringLiteral("1.0.0"));
    os.arch = arch;
    os.imageUri = imageUri;
    return os;
}

bool runTool(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        return false;
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool makeOva(const QString &qemuImg, const QString &workDir, QString *ovaPath)
{
    const QString parts = workDir + QStringLiteral("/ova-parts");
    const QStringList names = {QStringLiteral("device.ovf"), QStringLiteral("system.vmdk"),
                               QStringLiteral("data.vmdk"), QStringLiteral("sdcard.vmdk")};
    const QStringList sizes = {QString(), QStringLiteral("64M"), QStringLiteral("32M"), QStringLiteral("4M")};
    if (!QDir().mkpath(parts))
        return false;
    for (int i = 1; i < names.size(); ++i) {
        if (!runTool(qemuImg, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"), QStringLiteral("vmdk"), QStringLiteral("-o"),
                               i == 2 ? QStringLiteral("subformat=streamOptimized") : QStringLiteral("subformat=monolithicSparse"), parts + QLatin1Char('/') + names[i], sizes[i]}))
            return false;
    }
    QFile ovf(parts + QStringLiteral("/device.ovf"));
    if (!ovf.open(QIODevice::WriteOnly))
        return false;
    ovf.write("<?xml version=\"1.0\"?>\n<Envelope><References><File ovf:href=\"system.vmdk\"/>"
              "<File ovf:href=\"data.vmdk\"/><File ovf:href=\"sdcard.vmdk\"/></References></Envelope>\n");
    ovf.close();
    *ovaPath = workDir + QStringLiteral("/image.ova");
    return runTool(QStringLiteral("tar"), QStringList{QStringLiteral("-cf"), *ovaPath, QStringLiteral("-C"), parts} + names);
}

QList<qint64> processesBelow(const QString &dir)
{
    QList<qint64> pids;
#ifdef Q_OS_LINUX
    const QString prefix = QFileInfo(dir).canonicalFilePath() + QLatin1Char('/');
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString &entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (!numeric)
            continue;
        // By program name too: a link below dir to a real program (QEMU) resolves elsewhere.
        QFile cmdline(QStringLiteral("/proc/%1/cmdline").arg(pid));
        const QString program = cmdline.open(QIODevice::ReadOnly) ? QFile::decodeName(cmdline.readLine().constData()) : QString();
        if (QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)).startsWith(prefix) || (QFileInfo(QFileInfo(program).absolutePath()).canonicalFilePath() + QLatin1Char('/')).startsWith(prefix))
            pids.append(pid);
    }
#else
    Q_UNUSED(dir);
#endif
    return pids;
}

void killProcessesBelow(const QString &dir)
{
#ifdef Q_OS_UNIX
    for (qint64 pid : processesBelow(dir))
        ::kill(pid_t(pid), SIGKILL);
    for (int i = 0; i < 50 && !processesBelow(dir).isEmpty(); ++i)
        QThread::msleep(20);
#else
    Q_UNUSED(dir);
#endif
}
