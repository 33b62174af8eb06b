#include "logcapture.h"
#include "qemuclient.h"
#include "testenv.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// The QMP client against a real qemu-system-x86_64 with a qcow2 system disk and a
// vvfat shared folder, the layout of a device.
class tst_QmpReal : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void saveRefusedWithSharedFolder();
    void saveAfterUnplugging();
    void quitEndsQemu();

private:
    bool waitForQemuEnd();
    QStringList snapshots();

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<QProcess> m_qemu;
    QString m_qemuImg;
    quint16 m_port = 0;
};

static quint16 freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress(QHostAddress::LocalHost), 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

void tst_QmpReal::init()
{
    QV_REQUIRE_PROGRAM(qemuImg, "qemu-img");
    QV_REQUIRE_PROGRAM(qemuSystem, "qemu-system-x86_64");
    m_qemuImg = qemuImg;

    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    const QString system = m_dir->filePath(QStringLiteral("system.qcow2"));
    QCOMPARE(QProcess::execute(qemuImg, {"create", "-q", "-f", "qcow2", system, "64M"}), 0);
    QVERIFY(QDir(m_dir->path()).mkpath(QStringLiteral("shared")));
    m_port = freePort();
    QVERIFY(m_port != 0);

    m_qemu = std::make_unique<QProcess>();
    m_qemu->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_qemu->setStandardOutputFile(QProcess::nullDevice());
    m_qemu->start(qemuSystem,
                  {"-accel", "kvm", "-accel", "tcg", "-m", "64", "-nodefaults", "-nographic",
                   "-display", "none", "-drive",
                   QStringLiteral("file=%1,format=qcow2").arg(system), "-drive",
                   QStringLiteral("format=vvfat,label=shared,id=shared,file=fat:rw:%1")
                       .arg(m_dir->filePath(QStringLiteral("shared"))),
                   "-qmp", QStringLiteral("tcp:localhost:%1,server,nowait").arg(m_port)});
    QVERIFY2(m_qemu->waitForStarted(5000), qPrintable(m_qemu->errorString()));

    // The monitor takes one client at a time; the probe leaves before the test connects.
    QDeadlineTimer deadline(10000);
    bool listening = false;
    while (!listening && !deadline.hasExpired() && m_qemu->state() == QProcess::Running) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress(QHostAddress::LocalHost), m_port);
        listening = probe.waitForConnected(500);
        if (!listening)
            m_qemu->waitForFinished(100);
    }
    QVERIFY2(listening, "QEMU did not open its QMP port in time");
}

void tst_QmpReal::cleanup()
{
    if (m_qemu && m_qemu->state() != QProcess::NotRunning) {
        m_qemu->kill();
        m_qemu->waitForFinished(5000);
    }
    m_qemu.reset();
    m_dir.reset();
}

bool tst_QmpReal::waitForQemuEnd()
{
    return m_qemu->state() == QProcess::NotRunning || m_qemu->waitForFinished(10000);
}

QStringList tst_QmpReal::snapshots()
{
    QProcess list;
    list.start(m_qemuImg, {"snapshot", "-l", m_dir->filePath(QStringLiteral("system.qcow2"))});
    if (!list.waitForFinished(10000))
        return {QStringLiteral("qemu-img did not finish")};
    return QString::fromUtf8(list.readAllStandardOutput()).split(QLatin1Char('\n'));
}

void tst_QmpReal::saveRefusedWithSharedFolder()
{
    LogCapture log;
    {
        QEMUClient client(m_port);
        QVERIFY(!client.saveSnapshot(QStringLiteral("snap1"), false));
    }
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] QEMUClient: failed to save snapshot"),
             qPrintable(log.dump()));
    // QEMU explains the refusal in the human monitor's text.
    const QStringList returned = log.lines(QtCriticalMsg).filter("QEMUClient: QEMU returned \"");
    QCOMPARE(returned.size(), 1);
    QVERIFY2(returned.first().endsWith("while we expected \"\""), qPrintable(returned.first()));
}

void tst_QmpReal::saveAfterUnplugging()
{
    LogCapture log;
    {
        QEMUClient client(m_port);
        QVERIFY2(client.saveSnapshot(QStringLiteral("snap1"), true), qPrintable(log.dump()));
    }
    {
        QEMUClient client(m_port);
        QVERIFY2(client.quit(), qPrintable(log.dump()));
    }
    QVERIFY(waitForQemuEnd());
    QVERIFY2(!snapshots().filter(QRegularExpression("\\bsnap1\\b")).isEmpty(),
             qPrintable(snapshots().join('\n')));
    QCOMPARE(log.lines(QtCriticalMsg), QStringList());
}

void tst_QmpReal::quitEndsQemu()
{
    LogCapture log;
    {
        QEMUClient client(m_port);
        QVERIFY2(client.quit(), qPrintable(log.dump()));
    }
    QVERIFY(waitForQemuEnd());
    QCOMPARE(m_qemu->exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_qemu->exitCode(), 0);
    QVERIFY(log.contains(QtDebugMsg, "[VMTools] QEMUClient: sending quit command"));
    QCOMPARE(log.lines(QtCriticalMsg), QStringList());
}

QTEST_GUILESS_MAIN(tst_QmpReal)
#include "tst_qmpreal.moc"
