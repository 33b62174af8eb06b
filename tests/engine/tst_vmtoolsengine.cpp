#include "hostdirectories.h"
#include "logcapture.h"
#include "testdoubles.h"
#include "testenv.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <cstring>

namespace {

// A processor scripted by the test: the vendor registers of leaf 0, the ECX of leaf 1 and
// of the extended leaf, and a record of the leaves the engine asked for.
struct FakeProcessor
{
    QByteArray vendor;
    quint32 featureEcx = 0;
    quint32 extendedEcx = 0;
    QList<quint32> leaves;
};
FakeProcessor g_processor;

quint32 vendorRegister(int block)
{
    quint32 value = 0;
    const QByteArray bytes = g_processor.vendor.leftJustified(12, '\0', true).mid(block * 4, 4);
    std::memcpy(&value, bytes.constData(), 4);
    return value;
}

CpuidRegisters fakeCpuid(quint32 leaf, quint32)
{
    g_processor.leaves << leaf;
    CpuidRegisters r;
    if (leaf == 0) {
        r.eax = 0x16;
        r.ebx = vendorRegister(0);
        r.edx = vendorRegister(1);
        r.ecx = vendorRegister(2);
    } else if (leaf == 1) {
        r.ecx = g_processor.featureEcx;
        r.edx = 0xffffffff;
    } else if (leaf == 0x80000001) {
        r.ecx = g_processor.extendedEcx;
    }
    return r;
}

void useProcessor(const QByteArray &vendor, quint32 featureEcx = 0, quint32 extendedEcx = 0)
{
    g_processor = FakeProcessor{vendor, featureEcx, extendedEcx, {}};
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Sets or clears "virtual_devices.directory" in the user's settings file, keeping the rest.
void setDevicesDirectorySetting(const QString &value)
{
    const QString path = homeDirectory() + QStringLiteral("/settings.json");
    QJsonObject object = QJsonDocument::fromJson(contents(path)).object();
    if (value.isNull())
        object.remove(QStringLiteral("virtual_devices.directory"));
    else
        object.insert(QStringLiteral("virtual_devices.directory"), value);
    QVERIFY(writeFile(path, QJsonDocument(object).toJson()));
}

Version version(int major, int minor, int patch)
{
    Version v;
    v.majorVersion = major;
    v.minorVersion = minor;
    v.patchVersion = patch;
    return v;
}

} // namespace

class tst_VMToolsEngine : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void virtualizationTest_data();
    void virtualizationTest();
    void hostCpuidReadsVendor();
    void devicesDirectoryFromSetting_data();
    void devicesDirectoryFromSetting();
    void machineExists_data();
    void machineExists();
    void snapshotPolicy_data();
    void snapshotPolicy();
    void extractSkipsExtractedImage();
    void extractFailures_data();
    void extractFailures();
    void extractRealOva_data();
    void extractRealOva();

private:
    QString makeOva(const QString &name);

    QTemporaryDir m_home;
    QTemporaryDir m_work;
};

void tst_VMToolsEngine::initTestCase()
{
    QVERIFY(m_home.isValid() && m_work.isValid());
    qputenv("QV_HOME", QFile::encodeName(m_home.path()));
    // The settings store reads the legacy native settings once; keep it off the real home.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_home.filePath(QStringLiteral("xdg"))));
    useProcessor("GenuineIntel");
}

void tst_VMToolsEngine::virtualizationTest_data()
{
    QTest::addColumn<QByteArray>("vendor");
    QTest::addColumn<quint32>("featureEcx");
    QTest::addColumn<quint32>("extendedEcx");
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("supported");
    QTest::addColumn<bool>("extendedLeafRun");

    QTest::newRow("intel, vmx set") << QByteArray("GenuineIntel") << 0x7ffafbffu << 0u
                                    << "[VMTools] CPUID 0x1 (Intel): ECX= 7ffafbff" << true << false;
    QTest::newRow("intel, only bit 2") << QByteArray("GenuineIntel") << 0xfeda3204u << 0xffffffffu
                                       << "[VMTools] CPUID 0x1 (Intel): ECX= feda3204" << false << false;
    QTest::newRow("amd, leaf-1 bit 2") << QByteArray("AuthenticAMD") << 0x7ed8320fu << 0u
                                       << "[VMTools] CPUID 0x80000001 (AMD): ECX= 7ed8320f" << true << true;
    // The extended leaf's own register is ignored: its SVM bit does not count.
    QTest::newRow("amd, extended leaf discarded") << QByteArray("AuthenticAMD") << 0x20u << 0xffffffffu
                                                  << "[VMTools] CPUID 0x80000001 (AMD): ECX= 20" << false << true;
    QTest::newRow("intel in other case") << QByteArray("genuineintel") << 0x20u << 0u
                                         << "[VMTools] CPUID 0x80000001 (AMD): ECX= 20" << false << true;
    QTest::newRow("no cpuid") << QByteArray() << 0u << 0u
                              << "[VMTools] CPUID 0x80000001 (AMD): ECX= 0" << false << true;
}

void tst_VMToolsEngine::virtualizationTest()
{
    QFETCH(QByteArray, vendor);
    QFETCH(quint32, featureEcx);
    QFETCH(quint32, extendedEcx);
    QFETCH(QString, line);
    QFETCH(bool, supported);
    QFETCH(bool, extendedLeafRun);

    useProcessor(vendor, featureEcx, extendedEcx);
    LogCapture log;
    TestEngine engine(fakeCpuid);

    QCOMPARE(engine.cpuVendor(), QString::fromLatin1(vendor));
    QVERIFY2(log.contains(QtDebugMsg, QStringLiteral("[VMTools] Chipset: ") + QString::fromLatin1(vendor)),
             qPrintable(log.dump()));
    QVERIFY2(log.contains(QtDebugMsg, line), qPrintable(log.dump()));
    QCOMPARE(engine.isVirtualizationSupported(), supported);
    QCOMPARE(g_processor.leaves.mid(0, 2), (QList<quint32>{0u, 1u}));
    QCOMPARE(g_processor.leaves.contains(0x80000001u), extendedLeafRun);
}

void tst_VMToolsEngine::hostCpuidReadsVendor()
{
#if defined(Q_PROCESSOR_X86)
    const CpuidRegisters r = hostCpuid(0, 0);
    QVERIFY(r.eax >= 1);  // every x86-64 processor has the feature leaf
    TestEngine engine;
    QCOMPARE(engine.cpuVendor().size(), 12);
    for (const QChar c : engine.cpuVendor())
        QVERIFY2(c.unicode() >= 0x20 && c.unicode() < 0x7f, qPrintable(engine.cpuVendor()));
#else
    const CpuidRegisters r = hostCpuid(0, 0);
    QCOMPARE(r.ebx | r.ecx | r.edx, 0u);
#endif
}

void tst_VMToolsEngine::devicesDirectoryFromSetting_data()
{
    QTest::addColumn<QString>("setting");  // null: not set
    QTest::addColumn<bool>("useDefault");

    QTest::newRow("not set") << QString() << true;
    QTest::newRow("set") << m_work.filePath(QStringLiteral("elsewhere/devices")) << false;
}

void tst_VMToolsEngine::devicesDirectoryFromSetting()
{
    QFETCH(QString, setting);
    QFETCH(bool, useDefault);

    setDevicesDirectorySetting(setting);
    TestEngine engine(fakeCpuid);
    QCOMPARE(engine.devicesDirectory().path(), QDir(useDefault ? deployedDirectory() : setting).path());
    setDevicesDirectorySetting(QString());
}

void tst_VMToolsEngine::machineExists_data()
{
    QTest::addColumn<bool>("loadable");
    QTest::addColumn<QString>("where");  // "deployed", "configured", "file" or "" (nothing made)
    QTest::addColumn<QString>("entry");
    QTest::addColumn<QString>("asked");
    QTest::addColumn<bool>("exists");

    QTest::newRow("loadable, no directory") << true << "" << "" << "alpha" << true;
    QTest::newRow("not loadable, directory in deployed") << false << "deployed" << "beta" << "beta" << true;
    QTest::newRow("nothing") << false << "" << "" << "gamma" << false;
    // Only the default deployed directory counts, not the configured one.
    QTest::newRow("directory in configured only") << false << "configured" << "delta" << "delta" << false;
    QTest::newRow("case differs") << false << "deployed" << "Epsilon" << "epsilon" << false;
    QTest::newRow("a file, not a directory") << false << "file" << "zeta" << "zeta" << false;
}

void tst_VMToolsEngine::machineExists()
{
    QFETCH(bool, loadable);
    QFETCH(QString, where);
    QFETCH(QString, entry);
    QFETCH(QString, asked);
    QFETCH(bool, exists);

    const QString configured = m_work.filePath(QStringLiteral("configured"));
    setDevicesDirectorySetting(configured);
    TestEngine engine(fakeCpuid);
    setDevicesDirectorySetting(QString());
    QCOMPARE(engine.devicesDirectory().path(), configured);
    engine.loadable = loadable;

    if (where == QLatin1String("deployed")) {
        // A description that cannot be loaded does not matter: the directory alone counts.
        QVERIFY(writeFile(deployedDirectory() + entry + QStringLiteral("/shared/config/device.json"), "{"));
    } else if (where == QLatin1String("configured")) {
        QVERIFY(QDir().mkpath(configured + QLatin1Char('/') + entry));
    } else if (where == QLatin1String("file")) {
        QVERIFY(writeFile(deployedDirectory() + entry, "x"));
    }
    QCOMPARE(engine.machineExists(asked), exists);
}

void tst_VMToolsEngine::snapshotPolicy_data()
{
    QTest::addColumn<bool>("flagIn");
    QTest::addColumn<bool>("supported");
    QTest::addColumn<bool>("hasSnapshot");
    QTest::addColumn<QString>("snapshot");
    QTest::addColumn<bool>("flagOut");
    QTest::addColumn<QString>("line");  // empty: neither fall-back line

    QTest::newRow("cold boot asked") << false << true << true << "" << false << "";
    QTest::newRow("snapshots unsupported") << true << false << true << "" << false
                                           << "[VMTools] Snapshot not supported, fallback on cold boot";
    QTest::newRow("snapshot present") << true << true << true << "latest" << true << "";
    QTest::newRow("no snapshot") << true << true << false << "" << false
                                 << "[VMTools] No snapshot found, fallback on cold boot";
}

void tst_VMToolsEngine::snapshotPolicy()
{
    QFETCH(bool, flagIn);
    QFETCH(bool, supported);
    QFETCH(bool, hasSnapshot);
    QFETCH(QString, snapshot);
    QFETCH(bool, flagOut);
    QFETCH(QString, line);

    TestEngine engine(fakeCpuid);
    engine.snapshotSupported = supported;
    engine.startResult = 7;
    TestMachine machine(m_work.filePath(QStringLiteral("policy")));
    machine.setHasSnapshot(hasSnapshot);

    LogCapture log;
    bool flag = flagIn;
    QCOMPARE(engine.startMachineWithSnapshotPolicy(&machine, flag), 7);
    QCOMPARE(flag, flagOut);
    QCOMPARE(engine.startedSnapshots, QStringList{snapshot});
    const QStringList fallbacks{QStringLiteral("[VMTools] Snapshot not supported, fallback on cold boot"),
                                QStringLiteral("[VMTools] No snapshot found, fallback on cold boot")};
    for (const QString &fallback : fallbacks)
        QVERIFY2(log.contains(QtDebugMsg, fallback) == (fallback == line), qPrintable(log.dump()));
}

void tst_VMToolsEngine::extractSkipsExtractedImage()
{
    const Version first = version(11, 0, 0);
    const Version second = version(1, 0, 1);
    const QString target = systemImageDirectory(first, second);
    QVERIFY(writeFile(target + QStringLiteral("/system.vmdk"), "system"));
    QVERIFY(writeFile(target + QStringLiteral("/data.vmdk"), "data"));
    QVERIFY(writeFile(target + QStringLiteral("/sdcard.vmdk"), "sdcard"));

    TestEngine engine(fakeCpuid);
    LogCapture log;
    QVERIFY(engine.extractSystemImage(m_work.filePath(QStringLiteral("missing.ova")), first, second));
    QVERIFY(engine.removedFiles.isEmpty());
    QVERIFY(QFileInfo::exists(target + QStringLiteral("/sdcard.vmdk")));
    QVERIFY2(log.lines(QtCriticalMsg).isEmpty(), qPrintable(log.dump()));
}

void tst_VMToolsEngine::extractFailures_data()
{
    QTest::addColumn<int>("major");        // versions <major>.0.0 / 2.0.0, one directory per row
    QTest::addColumn<QString>("prepare");  // "", "system only" or "blocked"
    QTest::addColumn<QString>("line");     // %1: the target directory's absolute path

    QTest::newRow("archive missing") << 21 << "" << "[VMTools] Failed to extract OVA";
    QTest::newRow("half extracted") << 22 << "system only" << "[VMTools] Failed to extract OVA";
    QTest::newRow("directory blocked by a file") << 23 << "blocked" << "[VMTools] Failed to create directory %1";
}

void tst_VMToolsEngine::extractFailures()
{
    QFETCH(int, major);
    QFETCH(QString, prepare);
    QFETCH(QString, line);

    const Version first = version(major, 0, 0);
    const Version second = version(2, 0, 0);
    const QString target = systemImageDirectory(first, second);
    if (prepare == QLatin1String("system only"))
        QVERIFY(writeFile(target + QStringLiteral("/system.vmdk"), "system"));
    else if (prepare == QLatin1String("blocked"))
        QVERIFY(writeFile(systemImagesDirectory() + first.toString(), "a file where a directory goes"));

    TestEngine engine(fakeCpuid);
    LogCapture log;
    QVERIFY(!engine.extractSystemImage(m_work.filePath(QStringLiteral("missing.ova")), first, second));
    QVERIFY2(log.contains(QtCriticalMsg, line.arg(QDir::cleanPath(target))), qPrintable(log.dump()));
    QVERIFY(engine.removedFiles.isEmpty());
}

// A small OVA made with GNU tar: a descriptor, the two disks the system needs and the SD
// card disk that extraction throws away.
QString tst_VMToolsEngine::makeOva(const QString &name)
{
    const QString staging = m_work.filePath(name + QStringLiteral(".staging"));
    const QStringList members{QStringLiteral("image.ovf"), QStringLiteral("system.vmdk"),
                              QStringLiteral("data.vmdk"), QStringLiteral("sdcard.vmdk")};
    for (const QString &member : members) {
        if (!writeFile(staging + QLatin1Char('/') + member, member.toUtf8().repeated(300)))
            return {};
    }
    const QString archive = m_work.filePath(name + QStringLiteral(".ova"));
    QProcess tar;
    tar.start(QStringLiteral("tar"), QStringList{QStringLiteral("--format=ustar"), QStringLiteral("-cf"),
                                                 archive, QStringLiteral("-C"), staging} + members);
    if (!tar.waitForFinished(30000)) {
        tar.kill();
        tar.waitForFinished(5000);
        return {};
    }
    return tar.exitStatus() == QProcess::NormalExit && tar.exitCode() == 0 ? archive : QString();
}

void tst_VMToolsEngine::extractRealOva_data()
{
    QTest::addColumn<QString>("uriKind");  // how the image names its archive
    QTest::addColumn<int>("patch");        // image version 3.0.<patch>, one directory per row

    QTest::newRow("absolute path") << "path" << 1;
    QTest::newRow("file url") << "file" << 2;
    QTest::newRow("vendor address, file in the ova directory") << "vendor" << 3;
    QTest::newRow("download url with query, file in the ova directory") << "https" << 4;
}

void tst_VMToolsEngine::extractRealOva()
{
    QV_REQUIRE_PROGRAM(tarPath, "tar");
    Q_UNUSED(tarPath);
    QFETCH(QString, uriKind);
    QFETCH(int, patch);

    const QString archive = makeOva(QStringLiteral("image%1").arg(patch));
    QVERIFY(!archive.isEmpty());

    OsImage image;
    image.osVersion = version(11, 0, 0);
    image.imageVersion = version(3, 0, patch);
    if (uriKind == QLatin1String("path")) {
        image.imageUri = archive;
    } else if (uriKind == QLatin1String("file")) {
        image.imageUri = QUrl::fromLocalFile(archive).toString();
    } else {
        const QString name = QStringLiteral("download%1.ova").arg(patch);
        QVERIFY(QFile::copy(archive, ovaDirectory() + name));
        image.imageUri = (uriKind == QLatin1String("vendor")
                                  ? QStringLiteral("{{VENDOR}}/dists/11.0/ova/%1")
                                  : QStringLiteral("https://images.example.com/ova/%1?token=1")).arg(name);
    }

    TestEngine engine(fakeCpuid);
    LogCapture log;
    QVERIFY2(engine.ensureSystemImageExtracted(image), qPrintable(log.dump()));

    const QDir target(systemImageDirectory(image.osVersion, image.imageVersion));
    QCOMPARE(contents(target.filePath(QStringLiteral("system.vmdk"))), QByteArray("system.vmdk").repeated(300));
    QCOMPARE(contents(target.filePath(QStringLiteral("data.vmdk"))), QByteArray("data.vmdk").repeated(300));
    QVERIFY(target.exists(QStringLiteral("image.ovf")));
    QVERIFY(!target.exists(QStringLiteral("sdcard.vmdk")));
    QCOMPARE(engine.removedFiles, QStringList{target.absoluteFilePath(QStringLiteral("sdcard.vmdk"))});
}

QTEST_GUILESS_MAIN(tst_VMToolsEngine)
#include "tst_vmtoolsengine.moc"
