#include "hostdirectories.h"
#include "logcapture.h"
#include "ovafixture.h"
#include "processutils.h"
#include "qemuengine.h"
#include "qemumachine.h"
#include "testenv.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace OvaFixture;

// Devices made from a real OVA with the real qemu-img and QEMU: creation reuses the
// converted reference disks, snapshots go through a running QEMU, clones and resets end
// with the right bytes on disk.
class tst_Devices : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void createReusesReferenceDisks();
    void snapshots();
    void cloneStoppedDevice();
    void resizeSdCard();
    void factoryReset();
    void factoryResetWithoutReferenceDisks_data();
    void factoryResetWithoutReferenceDisks();

private:
    std::unique_ptr<QEMUMachine> load(const QString &name);
    QString referenceFile(const QString &fileName) const;
    QJsonObject qemuImgInfo(const QString &disk) const;
    QStringList snapshotTags(const QString &disk) const;

    QTemporaryDir m_home;
    QString m_img;
    QString m_qemu;
    OsImage m_image;
    std::unique_ptr<QEMUEngine> m_engine;
    qint64 m_qemuPid = 0;
};

void tst_Devices::initTestCase()
{
    QV_REQUIRE_PROGRAM(img, "qemu-img");
    QV_REQUIRE_PROGRAM(tar, "tar");
    m_img = img;
    m_qemu = requiredProgramPath(QStringLiteral("qemu-system-x86_64"));
    QVERIFY(m_home.isValid());
    qputenv("QV_HOME", m_home.path().toUtf8());
    qputenv("QV_QEMU_BIN_DIR", QFileInfo(img).absolutePath().toUtf8());
    qunsetenv("QV_TRIGGER_ERROR");
    qunsetenv("QV_QEMU_START_ARGS");
    QString ova;
    QVERIFY(makeOva(m_img, m_home.path(), &ova));
    m_image = image(ova);
    m_engine = std::make_unique<QEMUEngine>();
    QVERIFY(QDir().mkpath(m_engine->devicesDirectory().absolutePath()));
    // Every later case works on devices of this image.
    QCOMPARE(m_engine->createDevice(QStringLiteral("alpha"), m_image, profile(16)), 0);
}

void tst_Devices::cleanupTestCase()
{
    if (m_qemuPid > 0 && isRunning(quint32(m_qemuPid)))
        destroyProcess(quint32(m_qemuPid));
    m_engine.reset();
}

std::unique_ptr<QEMUMachine> tst_Devices::load(const QString &name)
{
    return std::unique_ptr<QEMUMachine>(static_cast<QEMUMachine *>(m_engine->loadMachine(name)));
}

QString tst_Devices::referenceFile(const QString &fileName) const
{
    return QDir(systemImageDirectory(m_image.osVersion, m_image.imageVersion)).absoluteFilePath(fileName);
}

QJsonObject tst_Devices::qemuImgInfo(const QString &disk) const
{
    QProcess process;
    process.start(m_img, {QStringLiteral("info"), QStringLiteral("-U"), QStringLiteral("--output=json"), disk});
    if (!process.waitForFinished(30000) || process.exitCode() != 0)
        return QJsonObject();
    return QJsonDocument::fromJson(process.readAllStandardOutput()).object();
}

QStringList tst_Devices::snapshotTags(const QString &disk) const
{
    QProcess process;
    process.start(m_img, {QStringLiteral("snapshot"), QStringLiteral("-U"), QStringLiteral("-l"), disk});
    if (!process.waitForFinished(30000) || process.exitCode() != 0)
        return {QStringLiteral("<qemu-img failed>")};
    QStringList tags;
    const QStringList lines = QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        const QStringList fields = line.simplified().split(QLatin1Char(' '));
        if (fields.size() > 1 && fields.first().toInt() > 0)
            tags.append(fields.at(1));
    }
    return tags;
}

void tst_Devices::createReusesReferenceDisks()
{
    const QString alpha = m_engine->devicePath(QStringLiteral("alpha"));
    QVERIFY(QFile::exists(alpha + QStringLiteral("/sdcard.qcow2")));
    QCOMPARE(qemuImgInfo(alpha + QStringLiteral("/sdcard.qcow2")).value(QStringLiteral("virtual-size")).toDouble(),
             16.0 * 1024 * 1024);
    QCOMPARE(QFileInfo(qemuImgInfo(alpha + QStringLiteral("/system.qcow2"))
                               .value(QStringLiteral("backing-filename")).toString()).canonicalFilePath(),
             QFileInfo(referenceFile(QStringLiteral("system.qcow2"))).canonicalFilePath());
    QCOMPARE(fileHash(alpha + QStringLiteral("/data.qcow2")), fileHash(referenceFile(QStringLiteral("data.qcow2"))));

    // A second device of the same image converts nothing again; SD card size 0 makes no card.
    const qint64 systemTime = modifiedMs(referenceFile(QStringLiteral("system.qcow2")));
    const qint64 dataTime = modifiedMs(referenceFile(QStringLiteral("data.qcow2")));
    QTest::qWait(20);
    QCOMPARE(m_engine->createDevice(QStringLiteral("beta"), m_image, profile(0)), 0);
    QCOMPARE(modifiedMs(referenceFile(QStringLiteral("system.qcow2"))), systemTime);
    QCOMPARE(modifiedMs(referenceFile(QStringLiteral("data.qcow2"))), dataTime);
    const QString beta = m_engine->devicePath(QStringLiteral("beta"));
    QVERIFY(QFile::exists(beta + QStringLiteral("/system.qcow2")));
    QVERIFY(!QFile::exists(beta + QStringLiteral("/sdcard.qcow2")));
    auto machine = load(QStringLiteral("beta"));
    QVERIFY(machine);
    QCOMPARE(machine->osImage().imageUri, m_image.imageUri);

    // An existing name is refused and its directory stays byte for byte.
    const auto before = treeHashes(alpha);
    LogCapture log;
    QCOMPARE(m_engine->createDevice(QStringLiteral("alpha"), m_image, profile(0)), 1);
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Can't create already existing device alpha"),
             qPrintable(log.dump()));
    QCOMPARE(treeHashes(alpha), before);
}

void tst_Devices::snapshots()
{
    if (m_qemu.isEmpty()) {
        if (programsAreRequired())
            QFAIL("qemu-system-x86_64 is not installed and QV_REQUIRE_QEMU=1");
        QSKIP("qemu-system-x86_64 is not installed");
    }
    std::unique_ptr<VMToolsMachine> created(
            m_engine->createMachine(QStringLiteral("snappy"), m_image, profile(8), QVariantMap()));
    QVERIFY(created);
    auto machine = load(QStringLiteral("snappy"));
    QVERIFY(machine);
    QVERIFY(m_engine->listSnapshots(machine.get()).isEmpty());

    LogCapture log;
    QCOMPARE(m_engine->startMachine(machine.get(), QString()), int(QEMUMachine::StartRunning));
    m_qemuPid = QSettings(machine->lockFilePath(), QSettings::IniFormat).value(QStringLiteral("pid")).toLongLong();
    const bool saved = m_engine->saveSnapshot(machine.get(), QStringLiteral("booted"));
    QVERIFY(m_engine->stopMachine(machine.get()));
    QVERIFY2(saved, qPrintable(log.dump()));
    QTRY_VERIFY_WITH_TIMEOUT(!isRunning(quint32(m_qemuPid)), 5000);

    const QString dir = machine->path();
    const QStringList disks = {dir + QStringLiteral("/system.qcow2"), dir + QStringLiteral("/data.qcow2"),
                               dir + QStringLiteral("/sdcard.qcow2")};
    for (const QString &disk : disks)
        QCOMPARE(snapshotTags(disk), QStringList{QStringLiteral("booted")});

    // A tag with a character outside letters, digits and '_' is not listed (kept as it stands).
    QVERIFY(run(m_img, {QStringLiteral("snapshot"), QStringLiteral("-c"), QStringLiteral("odd-tag"), disks.first()}));
    QCOMPARE(m_engine->listSnapshots(machine.get()), QStringList{QStringLiteral("booted")});

    // An unknown name deletes nothing and still succeeds.
    QVERIFY(m_engine->deleteSnapshot(machine.get(), QStringLiteral("absent")));
    QCOMPARE(snapshotTags(disks.at(1)), QStringList{QStringLiteral("booted")});

    for (const QString &path : {machine->snapshotFilePath(), machine->snapshotExtraFilePath()}) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("state");
    }
    QVERIFY(m_engine->deleteSnapshot(machine.get(), QStringLiteral("booted")));
    QCOMPARE(snapshotTags(disks.at(0)), QStringList{QStringLiteral("odd-tag")});
    QCOMPARE(snapshotTags(disks.at(1)), QStringList());
    QCOMPARE(snapshotTags(disks.at(2)), QStringList());
    QVERIFY(!QFile::exists(machine->snapshotFilePath()));
    QVERIFY(!QFile::exists(machine->snapshotExtraFilePath()));
    QVERIFY(m_engine->listSnapshots(machine.get()).isEmpty());
}

void tst_Devices::cloneStoppedDevice()
{
    auto source = load(QStringLiteral("alpha"));
    QVERIFY(source);
    std::unique_ptr<VMToolsMachine> clone(m_engine->cloneMachine(source.get(), QStringLiteral("alpha-copy")));
    QVERIFY(clone);
    QVERIFY(clone->uuid() != source->uuid());
    QVERIFY(!clone->uuid().contains(QLatin1Char('{')));
    QVERIFY(!QUuid(clone->uuid()).isNull());

    // Every file is equal, but for the uuid in the device files.
    const QString from = source->path();
    const QString to = m_engine->devicePath(QStringLiteral("alpha-copy"));
    const auto expected = treeHashes(from);
    const auto actual = treeHashes(to);
    QCOMPARE(actual.keys(), expected.keys());
    QVERIFY(expected.contains(QStringLiteral("data.qcow2")));
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        if (actual.value(it.key()) == it.value())
            continue;
        QVERIFY2(it.key().endsWith(QLatin1String("device.json")), qPrintable(it.key()));
        QFile cloned(to + QLatin1Char('/') + it.key());
        QFile original(from + QLatin1Char('/') + it.key());
        QVERIFY(cloned.open(QIODevice::ReadOnly) && original.open(QIODevice::ReadOnly));
        QByteArray clonedText = cloned.readAll();
        QVERIFY(clonedText.contains(clone->uuid().toUtf8()));
        clonedText.replace(clone->uuid().toUtf8(), source->uuid().toUtf8());
        QCOMPARE(QJsonDocument::fromJson(clonedText), QJsonDocument::fromJson(original.readAll()));
    }

    // Onto an existing name: refused before anything is written.
    const auto beta = treeHashes(m_engine->devicePath(QStringLiteral("beta")));
    LogCapture log;
    QVERIFY(!m_engine->cloneMachine(source.get(), QStringLiteral("beta")));
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Can't clone to already existing device beta"),
             qPrintable(log.dump()));
    QCOMPARE(treeHashes(m_engine->devicePath(QStringLiteral("beta"))), beta);
}

void tst_Devices::resizeSdCard()
{
    auto machine = load(QStringLiteral("alpha"));
    QVERIFY(machine);
    QVERIFY(machine->setSdCardSize(64));
    QCOMPARE(machine->sdCardSize(), qint64(64));
    const QString card = machine->path() + QStringLiteral("/sdcard.qcow2");
    QCOMPARE(qemuImgInfo(card).value(QStringLiteral("virtual-size")).toDouble(), 64.0 * 1024 * 1024);
    QCOMPARE(load(QStringLiteral("alpha"))->sdCardSize(), qint64(64));
    QVERIFY(!m_engine->resizeDisk(machine.get(), machine->path() + QStringLiteral("/missing.qcow2"), 8));
}

void tst_Devices::factoryReset()
{
    QV_REQUIRE_PROGRAM(qemuIo, "qemu-io");
    auto machine = load(QStringLiteral("alpha"));
    QVERIFY(machine);
    const QString dir = machine->path();
    for (const QString &disk : {QStringLiteral("/data.qcow2"), QStringLiteral("/system.qcow2")})
        QVERIFY(run(qemuIo, {QStringLiteral("-c"), QStringLiteral("write -P 0xab 0 256k"), dir + disk}));
    QVERIFY(fileHash(dir + QStringLiteral("/data.qcow2")) != fileHash(referenceFile(QStringLiteral("data.qcow2"))));
    const QByteArray card = fileHash(dir + QStringLiteral("/sdcard.qcow2"));
    const QByteArray json = fileHash(dir + QStringLiteral("/device.json"));
    const qint64 overlaySize = QFileInfo(dir + QStringLiteral("/system.qcow2")).size();

    QCOMPARE(m_engine->factoryReset(machine.get()), 0);
    QCOMPARE(fileHash(dir + QStringLiteral("/data.qcow2")), fileHash(referenceFile(QStringLiteral("data.qcow2"))));
    QCOMPARE(fileHash(dir + QStringLiteral("/sdcard.qcow2")), card);
    QCOMPARE(fileHash(dir + QStringLiteral("/device.json")), json);
    QVERIFY(QFileInfo(dir + QStringLiteral("/system.qcow2")).size() < overlaySize);
    QVERIFY(!qemuImgInfo(dir + QStringLiteral("/system.qcow2")).value(QStringLiteral("backing-filename")).toString().isEmpty());

    LogCapture log;
    QCOMPARE(m_engine->factoryReset(nullptr), 2);
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Cannot factory reset null machine"), qPrintable(log.dump()));
}

void tst_Devices::factoryResetWithoutReferenceDisks_data()
{
    QTest::addColumn<QString>("removed");
    QTest::addColumn<bool>("upgraded");
    QTest::addColumn<int>("expected");
    QTest::newRow("system gone, never upgraded") << "system.qcow2" << false << 2;
    QTest::newRow("data gone, upgraded") << "data.qcow2" << true << 3;
    QTest::newRow("system gone, upgraded") << "system.qcow2" << true << 3;
}

void tst_Devices::factoryResetWithoutReferenceDisks()
{
    QFETCH(QString, removed);
    QFETCH(bool, upgraded);
    QFETCH(int, expected);
    auto machine = load(QStringLiteral("beta"));
    QVERIFY(machine);
    QVERIFY(machine->setConfigurationValue(QStringLiteral("device_upgraded_at_least_once"), upgraded));
    const auto before = treeHashes(machine->path());
    const QString reference = referenceFile(removed);
    const QString aside = m_home.path() + QStringLiteral("/aside.qcow2");
    QVERIFY(QFile::rename(reference, aside));
    LogCapture log;
    const int result = m_engine->factoryReset(machine.get());
    QVERIFY(QFile::rename(aside, reference));
    QCOMPARE(result, expected);
    QVERIFY2(log.contains(QtCriticalMsg, "[VMTools] Reference disks don't exist"), qPrintable(log.dump()));
    QCOMPARE(treeHashes(machine->path()), before);
}

QTEST_GUILESS_MAIN(tst_Devices)
#include "tst_devices.moc"
