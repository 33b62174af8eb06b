#include "hwprofile.h"
#include "osimage.h"
#include "processutils.h"
#include "testenv.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QUuid>
#include <QtTest>

// Drives the built qvctl as a subprocess against a temporary home with the real QEMU.
class tst_Qvctl : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();
    void badUsage_data();
    void badUsage();
    void jsonError();
    void lifecycle();
    void startFailures_data();
    void startFailures();

private:
    struct Run
    {
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
        QJsonObject json() const { return QJsonDocument::fromJson(out).object(); }
        QByteArray dump() const { return "exit " + QByteArray::number(exitCode) + "\nstdout:\n" + out + "\nstderr:\n" + err; }
    };
    Run qvctl(const QStringList &arguments, const QProcessEnvironment &extra = {});
    QString writeFile(const QString &name, const QByteArray &content);
    void stopAllQemu();

    QTemporaryDir m_dir;
    QString m_home;
    QString m_ova;
    QString m_profile;
    QString m_image;
};

void tst_Qvctl::initTestCase()
{
    QV_REQUIRE_PROGRAM(qemu, "qemu-system-x86_64");
    QV_REQUIRE_PROGRAM(img, "qemu-img");
    QV_REQUIRE_PROGRAM(tar, "tar");
    QVERIFY(m_dir.isValid());
    m_home = m_dir.filePath(QStringLiteral("home"));
    QVERIFY(QDir().mkpath(m_home));

    // A small OVA of blank disks, as an image archive holds them.
    const QString disks = m_dir.filePath(QStringLiteral("disks"));
    QVERIFY(QDir().mkpath(disks));
    for (const char *disk : {"system.vmdk", "data.vmdk"})
        QCOMPARE(QProcess::execute(img, {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                                         QStringLiteral("vmdk"), disks + QLatin1Char('/') + QLatin1String(disk),
                                         QStringLiteral("32M")}),
                 0);
    m_ova = m_dir.filePath(QStringLiteral("blank.ova"));
    QCOMPARE(QProcess::execute(tar, {QStringLiteral("-C"), disks, QStringLiteral("-cf"), m_ova,
                                     QStringLiteral("system.vmdk"), QStringLiteral("data.vmdk")}),
             0);

    HwProfile profile;
    profile.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    profile.source = HwProfile::Source::USER;
    profile.cpuCount = 1;
    profile.ramSize = 128;
    profile.dataDiskSize = 32;
    m_profile = writeFile(QStringLiteral("profile.json"), QJsonDocument(serializeHwProfile(profile)).toJson());

    OsImage image;
    image.uuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    image.name = QStringLiteral("described");
    image.buildDate = QDateTime(QDate(2024, 5, 6), QTime(7, 8), Qt::UTC);
    image.source = HwProfile::Source::USER;
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE};
    image.osVersion = parseVersion(QStringLiteral("12.0.0"));
    image.imageVersion = parseVersion(QStringLiteral("2.0.0"));
    image.arch = QStringLiteral("x86_64");
    image.imageUri = m_ova;
    image.version = parseVersion(QStringLiteral("1.1.0"));
    image.sdkVersion = 31;
    m_image = writeFile(QStringLiteral("image.json"), QJsonDocument(serializeOsImage(image)).toJson());
}

void tst_Qvctl::cleanup()
{
    stopAllQemu();
}

QString tst_Qvctl::writeFile(const QString &name, const QByteArray &content)
{
    const QString path = m_dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QString();
    return path;
}

// Whatever a test left running is ended through the pids of the lock files.
void tst_Qvctl::stopAllQemu()
{
    QDirIterator it(m_home, {QStringLiteral("qemu.lock")}, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const qint64 pid = QSettings(it.next(), QSettings::IniFormat).value(QStringLiteral("pid")).toLongLong();
        if (pid > 0 && isRunning(quint32(pid)))
            destroyProcess(quint32(pid));
    }
}

tst_Qvctl::Run tst_Qvctl::qvctl(const QStringList &arguments, const QProcessEnvironment &extra)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QV_HOME"), m_home);
    for (const char *name : {"QV_TRIGGER_ERROR", "QV_QEMU_START_ARGS", "QV_OSIMAGE_ARCH_LIST", "QV_PLUGIN_PATH"})
        environment.remove(QLatin1String(name));
    for (const QString &key : extra.keys())
        environment.insert(key, extra.value(key));
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(QVCTL_PATH), arguments);
    Run run;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = "qvctl did not finish within 120 s";
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

void tst_Qvctl::badUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");

    const QString notJson = writeFile(QStringLiteral("broken.json"), "{ \"uuid\": ");
    const QString notProfile = writeFile(QStringLiteral("array.json"), "[1, 2]");
    QTest::newRow("no command") << QStringList{} << 2 << "no command given";
    QTest::newRow("unknown command") << QStringList{"frobnicate"} << 2 << "unknown command 'frobnicate'";
    QTest::newRow("unknown option") << QStringList{"list", "--fast"} << 2 << "unknown option --fast";
    QTest::newRow("option without value") << QStringList{"list", "--plugin"} << 2 << "option --plugin needs a value";
    QTest::newRow("missing name") << QStringList{"info"} << 2 << "'info' needs more arguments";
    QTest::newRow("too many") << QStringList{"stop", "a", "b"} << 2 << "'stop' takes at most 1 arguments";
    QTest::newRow("clone one name") << QStringList{"clone", "a"} << 2 << "'clone' needs more arguments";
    QTest::newRow("slash in name") << QStringList{"info", "a/b"} << 2 << "is not a device name";
    QTest::newRow("dot dot") << QStringList{"delete", ".."} << 2 << "is not a device name";
    QTest::newRow("backslash") << QStringList{"start", "a\\b"} << 2 << "is not a device name";
    QTest::newRow("clone to path") << QStringList{"clone", "a", "../b"} << 2 << "is not a device name";
    QTest::newRow("resize not a number") << QStringList{"resize", "a", "12x"} << 2 << "'12x' is not a size in MiB";
    QTest::newRow("resize negative") << QStringList{"resize", "a", "-5"} << 2 << "unknown option -5";
    QTest::newRow("sdcard not a number") << QStringList{"create", "a", "--image", m_ova, "--profile", m_profile, "--sdcard", "big"}
                                         << 2 << "'big' is not a size in MiB";
    QTest::newRow("sdcard state") << QStringList{"sdcard", "a", "maybe"} << 2 << "takes on or off";
    QTest::newRow("snapshot action") << QStringList{"snapshot", "take", "a"} << 2 << "unknown snapshot action";
    QTest::newRow("snapshot save without name") << QStringList{"snapshot", "save", "a"} << 2 << "needs a device name and a snapshot name";
    QTest::newRow("create without image") << QStringList{"create", "a", "--profile", m_profile} << 2 << "needs --image and --profile";
    QTest::newRow("profile not JSON") << QStringList{"create", "a", "--image", m_ova, "--profile", notJson} << 2 << "is not a JSON object";
    QTest::newRow("image not JSON") << QStringList{"create", "a", "--image", notJson, "--profile", m_profile} << 2 << "is not a JSON object";
    QTest::newRow("profile not an object") << QStringList{"create", "a", "--image", m_ova, "--profile", notProfile} << 2 << "not an object";
    QTest::newRow("profile missing") << QStringList{"create", "a", "--image", m_ova, "--profile", "/nonexistent/p.json"} << 2 << "cannot read";
    QTest::newRow("image as profile") << QStringList{"create", "a", "--image", m_ova, "--profile", m_image} << 2 << "is not a valid hardware profile";
    QTest::newRow("unknown device") << QStringList{"info", "nosuch"} << 3 << "no device named 'nosuch'";
    QTest::newRow("unknown device start") << QStringList{"start", "nosuch"} << 3 << "no device named 'nosuch'";
    QTest::newRow("unknown clone source") << QStringList{"clone", "nosuch", "other"} << 3 << "no device named 'nosuch'";
    QTest::newRow("module missing") << QStringList{"list", "--plugin", "/nonexistent/libqemu.so"} << 1 << "cannot load the qemu module";
}

void tst_Qvctl::badUsage()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);
    const QStringList before = QDir(m_home).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    const Run run = qvctl(arguments);
    QVERIFY2(run.exitCode == exitCode, run.dump().constData());
    QVERIFY2(run.err.contains(message.toUtf8()), run.dump().constData());
    if (exitCode == 2) {
        QVERIFY2(run.err.contains("Usage: qvctl"), run.dump().constData());
        // Rejected before the module is loaded: the home directory is left as it was.
        QCOMPARE(QDir(m_home).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
    }
}

void tst_Qvctl::jsonError()
{
    const Run run = qvctl({QStringLiteral("--json"), QStringLiteral("info"), QStringLiteral("ghost")});
    QCOMPARE(run.exitCode, 3);
    const QJsonObject reply = run.json();
    QCOMPARE(reply.value(QStringLiteral("ok")).toBool(true), false);
    QCOMPARE(reply.value(QStringLiteral("exitCode")).toInt(), 3);
    QVERIFY(reply.value(QStringLiteral("message")).toString().contains(QStringLiteral("ghost")));

    const Run help = qvctl({QStringLiteral("--help")});
    QCOMPARE(help.exitCode, 0);
    QVERIFY(help.out.contains("memorynotsupportederror"));
}

void tst_Qvctl::lifecycle()
{
    const QString json = QStringLiteral("--json");
    // A bare archive is described on the fly; a description file is taken as written.
    Run run = qvctl({json, "create", "bare", "--image", m_ova, "--profile", m_profile, "--sdcard", "16"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QJsonObject reply = run.json();
    QCOMPARE(reply.value("imageDerived").toBool(), true);
    QCOMPARE(reply.value("osImage").toString(), QStringLiteral("blank"));
    QCOMPARE(reply.value("arch").toString(), QStringLiteral("x86_64"));
    QCOMPARE(reply.value("sdCardMiB").toInt(), 16);
    const QString bareUuid = reply.value("uuid").toString();

    run = qvctl({json, "create", "dev", "--image", m_image, "--profile", m_profile});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    reply = run.json();
    QCOMPARE(reply.value("osImage").toString(), QStringLiteral("described"));
    QCOMPARE(reply.value("osVersion").toString(), QStringLiteral("12.0.0"));
    QCOMPARE(reply.value("state").toString(), QStringLiteral("stopped"));
    QVERIFY(QFile::exists(reply.value("path").toString() + QStringLiteral("/system.qcow2")));

    run = qvctl({"create", "dev", "--image", m_image, "--profile", m_profile});
    QVERIFY2(run.exitCode == 1 && run.err.contains("already exists"), run.dump().constData());

    run = qvctl({json, "start", "dev", "--quickboot"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    reply = run.json();
    QCOMPARE(reply.value("quickboot").toBool(true), false);
    const QJsonObject ports = reply.value("ports").toObject();
    const int offset = ports.value("offset").toInt(-1);
    QVERIFY(offset >= 0 && offset % 7 == 0);
    QCOMPARE(ports.value("adbPort").toInt(), 6555 + offset);
    QCOMPARE(ports.value("adbSerial").toString(), QStringLiteral("127.0.0.1:%1").arg(6555 + offset));
    QCOMPARE(ports.value("qmpPort").toInt(), 23555 + offset);
    QCOMPARE(ports.value("forwardedPorts").toArray().size(), 7);
    {
        QTcpSocket qmp;
        qmp.connectToHost(QStringLiteral("127.0.0.1"), quint16(ports.value("qmpPort").toInt()));
        QVERIFY(qmp.waitForConnected(5000));
        QVERIFY(qmp.waitForReadyRead(5000));
        QVERIFY(qmp.readAll().contains("QMP"));
    }

    // Already running: the same ports come back and nothing else happens.
    run = qvctl({json, "start", "dev"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QCOMPARE(run.json().value("ports").toObject().value("offset").toInt(), offset);

    run = qvctl({json, "info", "dev"});
    QCOMPARE(run.json().value("state").toString(), QStringLiteral("running"));
    QCOMPARE(run.json().value("ports").toObject().value("qmpPort").toInt(), 23555 + offset);

    // A running device is neither deleted, cloned nor reset.
    for (const QStringList &refused : {QStringList{"delete", "dev"}, QStringList{"clone", "dev", "copy"}, QStringList{"reset", "dev"}}) {
        run = qvctl(refused);
        QVERIFY2(run.exitCode == 1 && run.err.contains("qvctl stop dev"), run.dump().constData());
    }

    run = qvctl({"snapshot", "save", "dev", "booted"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    run = qvctl({"snapshot", "save", "bare", "booted"});
    QVERIFY2(run.exitCode == 1 && run.err.contains("is not running"), run.dump().constData());

    run = qvctl({json, "stop", "dev"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QCOMPARE(run.json().value("wasRunning").toBool(), true);
    run = qvctl({json, "info", "dev"});
    QCOMPARE(run.json().value("state").toString(), QStringLiteral("stopped"));
    const QString devPath = run.json().value("path").toString();
    QVERIFY(!QFile::exists(devPath + QStringLiteral("/qemu.lock")));

    run = qvctl({json, "snapshot", "list", "dev"});
    QCOMPARE(run.json().value("snapshots").toArray(), QJsonArray{QStringLiteral("booted")});
    run = qvctl({"snapshot", "delete", "dev", "booted"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    run = qvctl({json, "snapshot", "list", "dev"});
    QCOMPARE(run.json().value("snapshots").toArray(), QJsonArray{});

    run = qvctl({json, "clone", "dev", "copy"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    const QString copyUuid = run.json().value("uuid").toString();
    QVERIFY(!copyUuid.isEmpty());
    run = qvctl({json, "info", "dev"});
    QVERIFY(run.json().value("uuid").toString() != copyUuid);
    run = qvctl({"clone", "bare", "copy"});
    QVERIFY2(run.exitCode == 1 && run.err.contains("already exists"), run.dump().constData());

    run = qvctl({json, "reset", "copy"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());

    run = qvctl({json, "set", "copy", "tested_by", "42"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QCOMPARE(run.json().value("value").toString(), QStringLiteral("42"));
    {
        // A JSON literal on the command line is stored with its type.
        QFile deviceJson(qvctl({json, "info", "copy"}).json().value("path").toString() + QStringLiteral("/shared/config/device.json"));
        QVERIFY(deviceJson.open(QIODevice::ReadOnly));
        const QJsonValue stored = QJsonDocument::fromJson(deviceJson.readAll()).object().value("configuration").toObject().value("tested_by");
        QVERIFY(stored.isDouble());
        QCOMPARE(stored.toInt(), 42);
    }
    run = qvctl({json, "resize", "bare", "24"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QCOMPARE(run.json().value("sdCardMiB").toInt(), 24);
    run = qvctl({json, "sdcard", "bare", "off"});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QCOMPARE(run.json().value("sdCardInserted").toBool(true), false);

    run = qvctl({json, "list"});
    QStringList names;
    for (const QJsonValue &device : run.json().value("devices").toArray())
        names.append(device.toObject().value("name").toString());
    names.sort();
    QCOMPARE(names, (QStringList{"bare", "copy", "dev"}));
    QVERIFY(qvctl({json, "info", "bare"}).json().value("uuid").toString() == bareUuid);

    for (const char *name : {"bare", "copy", "dev"}) {
        run = qvctl({"delete", name});
        QVERIFY2(run.exitCode == 0, run.dump().constData());
    }
    QCOMPARE(qvctl({json, "list"}).json().value("devices").toArray().size(), 0);
    QCOMPARE(qvctl({"info", "dev"}).exitCode, 3);
}

void tst_Qvctl::startFailures_data()
{
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("value");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("identifier");

    QTest::newRow("acceleration") << "QV_TRIGGER_ERROR" << "hypervhaxmerror" << 4 << "hypervhaxmerror";
    QTest::newRow("architecture") << "QV_OSIMAGE_ARCH_LIST" << "arm64" << 8 << "incompatibleosimagearch";
    QTest::newRow("memory") << "QV_TRIGGER_ERROR" << "x,memorynotsupportederror" << 9 << "memorynotsupportederror";
}

void tst_Qvctl::startFailures()
{
    QFETCH(QString, variable);
    QFETCH(QString, value);
    QFETCH(int, exitCode);
    QFETCH(QString, identifier);

    Run run = qvctl({"create", "failing", "--image", m_ova, "--profile", m_profile});
    QVERIFY2(run.exitCode == 0, run.dump().constData());
    QProcessEnvironment extra;
    extra.insert(variable, value);
    run = qvctl({"--json", "start", "failing"}, extra);
    stopAllQemu();
    QVERIFY2(run.exitCode == exitCode, run.dump().constData());
    QCOMPARE(run.json().value("error").toString(), identifier);
    QVERIFY(run.err.contains(identifier.toUtf8()));
    QCOMPARE(qvctl({"delete", "failing"}).exitCode, 0);
}

QTEST_GUILESS_MAIN(tst_Qvctl)
#include "tst_qvctl.moc"
