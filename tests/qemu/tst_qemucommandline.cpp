#include "logcapture.h"
#include "qemucommandline.h"

#include <QtTest>

namespace {

enum class Platform { Windows, Linux, LinuxArm64 };
enum class SdCard { NotAsked, Present, Missing };

struct Scenario
{
    const char *name;
    QemuLaunchSpec launch;
    QString overrides;
    Platform platform = Platform::Windows;
    SdCard sdCard = SdCard::NotAsked;
    QStringList log;  // every "[VMTools]" line expected, as "level: text", path as "D"
};

// The device the reference command line was written for; scenarios vary one thing each.
QemuLaunchSpec referenceDevice()
{
    QemuLaunchSpec launch;
    launch.machinePath = QStringLiteral("D");
    launch.memoryMegabytes = 4096;
    launch.cpuCount = 4;
    return launch;
}

QemuLaunchSpec with(void (*change)(QemuLaunchSpec &))
{
    QemuLaunchSpec launch = referenceDevice();
    change(launch);
    return launch;
}

const QString coldBootLine = QStringLiteral("debug: [VMTools] No shapshot available. Load shared folder drive.");

QVector<Scenario> scenarios()
{
    const QStringList coldBoot{coldBootLine};
    const QStringList snapshot{QStringLiteral("debug: [VMTools] Starting from snapshot quickboot")};
    return {
        {"reference-windows", referenceDevice(), {}, Platform::Windows, SdCard::NotAsked, coldBoot},
        {"port-offset-7", with([](QemuLaunchSpec &s) { s.portOffset = 7; }), {}, Platform::Windows,
         SdCard::NotAsked, coldBoot},
        {"snapshot", with([](QemuLaunchSpec &s) { s.snapshotName = QStringLiteral("quickboot"); }), {},
         Platform::Windows, SdCard::NotAsked, snapshot},
        {"snapshot-virtio",
         with([](QemuLaunchSpec &s) {
             s.snapshotName = QStringLiteral("quickboot");
             s.virtio = true;
         }),
         {}, Platform::Windows, SdCard::NotAsked, snapshot},
        {"cold-boot-virtio", with([](QemuLaunchSpec &s) { s.virtio = true; }), {}, Platform::Windows,
         SdCard::NotAsked, {}},
        {"sdcard-present", with([](QemuLaunchSpec &s) { s.sdCardEnabled = true; }), {},
         Platform::Windows, SdCard::Present, coldBoot},
        {"sdcard-present-virtio",
         with([](QemuLaunchSpec &s) {
             s.sdCardEnabled = true;
             s.virtio = true;
         }),
         {}, Platform::Windows, SdCard::Present, {}},
        {"sdcard-missing", with([](QemuLaunchSpec &s) { s.sdCardEnabled = true; }), {},
         Platform::Windows, SdCard::Missing,
         {QStringLiteral("warning: [VMTools] Failed to mount SdCard disk D/sdcard.qcow2 , disk is "
                         "either missing or doesn't have RW permission."),
          coldBootLine}},
        {"override-remove-vga", referenceDevice(), QStringLiteral("-vga="), Platform::Windows,
         SdCard::NotAsked, coldBoot},
        {"override-remove-first-accel", referenceDevice(), QStringLiteral("-accel[0]="),
         Platform::Windows, SdCard::NotAsked, coldBoot},
        {"override-append-accel", referenceDevice(), QStringLiteral("-accel[-1]=tcg"),
         Platform::Windows, SdCard::NotAsked, coldBoot},
        {"override-replace-second-accel", referenceDevice(), QStringLiteral("-accel[1]=tcg"),
         Platform::Windows, SdCard::NotAsked, coldBoot},
        {"override-replace-last-accel", referenceDevice(), QStringLiteral("-accel=tcg"),
         Platform::Windows, SdCard::NotAsked, coldBoot},
        {"override-snapshot-flag", referenceDevice(), QStringLiteral("-snapshot=true"),
         Platform::Windows, SdCard::NotAsked, coldBoot},
        {"override-memory", referenceDevice(), QStringLiteral("-m=2048M"), Platform::Windows,
         SdCard::NotAsked, coldBoot},
        {"show-window", with([](QemuLaunchSpec &s) { s.showWindow = true; }), {}, Platform::Windows,
         SdCard::NotAsked, coldBoot},
        {"linux", referenceDevice(), {}, Platform::Linux, SdCard::NotAsked, coldBoot},
        {"linux-arm64", with([](QemuLaunchSpec &s) { s.shareDir = QStringLiteral("/usr/share/qemu"); }),
         {}, Platform::LinuxArm64, SdCard::NotAsked, coldBoot},
    };
}

HostPlatform hostPlatform(Platform platform)
{
    if (platform == Platform::Windows)
        return HostPlatform::forWindows();
    HostPlatform linux = HostPlatform::forLinux();
    linux.arm64 = platform == Platform::LinuxArm64;
    return linux;
}

QString goldenDir()
{
    return QStringLiteral(QV_TEST_DATA_DIR "/cmdline");
}

QString goldenPath(const QString &name)
{
    return goldenDir() + QLatin1Char('/') + name + QStringLiteral(".args");
}

QStringList vmToolsLines(const LogCapture &log, const QString &machinePath)
{
    QStringList lines;
    for (const LogCapture::Entry &entry : log.entries()) {
        if (entry.text.startsWith(QLatin1String("[VMTools]"))) {
            QString text = entry.text;
            text.replace(machinePath, QStringLiteral("D"));
            lines << LogCapture::levelName(entry.type) + QStringLiteral(": ") + text;
        }
    }
    return lines;
}

// A small map shaped like the real one, for the override rules.
QemuOptionMap sampleOptions()
{
    QemuOptionMap options;
    options.addText(QStringLiteral("-accel"), QStringLiteral("whpx"));
    options.addText(QStringLiteral("-accel"), QStringLiteral("hax"));
    options.addText(QStringLiteral("-vga"), QStringLiteral("std"));
    options.addText(QStringLiteral("-m"), QStringLiteral("4096M"));
    return options;
}

} // namespace

class tst_QemuCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void goldenCommandLine_data();
    void goldenCommandLine();
    void everyGoldenFileIsUsed();
    void applyOverrides_data();
    void applyOverrides();
    void flattenOrdersNamesByCodeUnit();
    void readOnlySdCardIsSkipped();
    void startCommandText_data();
    void startCommandText();
};

void tst_QemuCommandLine::goldenCommandLine_data()
{
    QTest::addColumn<int>("index");
    const QVector<Scenario> all = scenarios();
    for (int i = 0; i < all.size(); ++i)
        QTest::newRow(all.at(i).name) << i;
}

void tst_QemuCommandLine::goldenCommandLine()
{
    QFETCH(int, index);
    const Scenario scenario = scenarios().at(index);
    QemuLaunchSpec launch = scenario.launch;

    // The SD card rule looks at the real file, so those devices live in a real directory
    // whose path is folded back to "D" before comparing.
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    if (scenario.sdCard != SdCard::NotAsked) {
        launch.machinePath = dir.path();
        if (scenario.sdCard == SdCard::Present) {
            QFile card(dir.filePath(QStringLiteral("sdcard.qcow2")));
            QVERIFY(card.open(QIODevice::WriteOnly));
        }
    }

    LogCapture log;
    QStringList arguments =
            QemuCommandLine(hostPlatform(scenario.platform)).arguments(launch, scenario.overrides);
    for (QString &argument : arguments)
        argument.replace(dir.path(), QStringLiteral("D"));

    const QString path = goldenPath(QString::fromLatin1(scenario.name));
    QFile golden(path);
    if (qEnvironmentVariable("QV_REGENERATE_GOLDEN") == QLatin1String("1")) {
        QVERIFY2(golden.open(QIODevice::WriteOnly | QIODevice::Truncate), qPrintable(path));
        golden.write((arguments.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8());
    } else {
        QVERIFY2(golden.open(QIODevice::ReadOnly),
                 qPrintable(path + QStringLiteral(" is missing; run with QV_REGENERATE_GOLDEN=1")));
        const QStringList expected =
                QString::fromUtf8(golden.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(arguments, expected);
    }

    QCOMPARE(vmToolsLines(log, dir.path()), scenario.log);
}

void tst_QemuCommandLine::everyGoldenFileIsUsed()
{
    QStringList used;
    for (const Scenario &scenario : scenarios())
        used << QString::fromLatin1(scenario.name) + QStringLiteral(".args");

    const QStringList present =
            QDir(goldenDir()).entryList({QStringLiteral("*.args")}, QDir::Files, QDir::Name);
    QStringList unused;
    for (const QString &file : present) {
        if (!used.contains(file))
            unused << file;
    }
    QVERIFY2(unused.isEmpty(), qPrintable(QStringLiteral("golden files without a scenario: ")
                                          + unused.join(QStringLiteral(", "))));
}

void tst_QemuCommandLine::applyOverrides_data()
{
    QTest::addColumn<QString>("overrides");
    QTest::addColumn<QString>("expected");  // flattened, joined with spaces
    QTest::addColumn<bool>("warns");

    const QString untouched = QStringLiteral("-accel whpx -accel hax -m 4096M -vga std");
    QTest::newRow("nothing") << QString() << untouched << false;
    QTest::newRow("no match") << "garbage" << untouched << false;
    QTest::newRow("no dash") << "vga=" << untouched << false;
    QTest::newRow("empty entries") << "&&" << untouched << false;

    QTest::newRow("remove all") << "-accel=" << "-m 4096M -vga std" << false;
    QTest::newRow("remove all, index -1") << "-accel[-1]=" << "-m 4096M -vga std" << false;
    QTest::newRow("remove all, huge negative index")
            << "-accel[-99999999999999999999]=" << "-m 4096M -vga std" << false;
    QTest::newRow("remove second") << "-accel[1]=" << "-accel whpx -m 4096M -vga std" << false;
    QTest::newRow("remove past the end") << "-accel[2]=" << untouched << false;
    QTest::newRow("remove huge index") << "-accel[99999999999999999999]=" << untouched << false;
    QTest::newRow("remove absent key") << "-cpu=" << untouched << false;
    QTest::newRow("remove only occurrence, then key is new")
            << "-m[0]=&-m=true" << "-accel whpx -accel hax -m -vga std" << false;

    QTest::newRow("replace last") << "-accel=tcg" << "-accel whpx -accel tcg -m 4096M -vga std" << false;
    QTest::newRow("replace first") << "-accel[0]=tcg" << "-accel tcg -accel hax -m 4096M -vga std" << false;
    QTest::newRow("append") << "-accel[-1]=tcg"
                            << "-accel whpx -accel hax -accel tcg -m 4096M -vga std" << false;
    QTest::newRow("replace past the end") << "-accel[2]=tcg" << untouched << true;
    QTest::newRow("replace at -2") << "-accel[-2]=tcg" << untouched << true;
    QTest::newRow("replace at huge index") << "-accel[99999999999999999999]=tcg" << untouched << true;
    QTest::newRow("true for existing key is text")
            << "-vga=true" << "-accel whpx -accel hax -m 4096M -vga true" << false;

    // New keys take their place in name order, not at the end.
    QTest::newRow("true adds a flag")
            << "-snapshot=true" << "-accel whpx -accel hax -m 4096M -snapshot -vga std" << false;
    QTest::newRow("true with an index adds a flag")
            << "-snapshot[3]=true" << "-accel whpx -accel hax -m 4096M -snapshot -vga std" << false;
    QTest::newRow("True is text")
            << "-snapshot=True" << "-accel whpx -accel hax -m 4096M -snapshot True -vga std" << false;
    QTest::newRow("new key ignores index")
            << "-smp[5]=2" << "-accel whpx -accel hax -m 4096M -smp 2 -vga std" << false;
    QTest::newRow("value keeps equals signs")
            << "-append=console=ttyS0 quiet" << "-accel whpx -accel hax -append console=ttyS0 quiet -m 4096M -vga std"
            << false;
    QTest::newRow("unanchored match") << "x-vga=" << "-accel whpx -accel hax -m 4096M" << false;
    QTest::newRow("double dash key matches single") << "--vga=" << "-accel whpx -accel hax -m 4096M" << false;

    QTest::newRow("in order: remove then add")
            << "-accel=&-accel=tcg" << "-accel tcg -m 4096M -vga std" << false;
    QTest::newRow("in order: add then remove") << "-accel=tcg&-accel=" << "-m 4096M -vga std" << false;
    QTest::newRow("bad entry among good ones")
            << "-m=2048M&junk&-vga=" << "-accel whpx -accel hax -m 2048M" << false;
}

void tst_QemuCommandLine::applyOverrides()
{
    QFETCH(QString, overrides);
    QFETCH(QString, expected);
    QFETCH(bool, warns);

    LogCapture log;
    QemuOptionMap options = sampleOptions();
    QemuCommandLine::applyOverrides(options, overrides);
    QCOMPARE(QemuCommandLine::flatten(options).join(QLatin1Char(' ')), expected);
    QCOMPARE(log.containsPrefix(QtWarningMsg, QStringLiteral("[VMTools] Ignoring QEMU option override")),
             warns);
}

void tst_QemuCommandLine::flattenOrdersNamesByCodeUnit()
{
    QemuOptionMap options;
    options.addText(QStringLiteral("-vga"), QStringLiteral("std"));
    options.addFlag(QStringLiteral("-snapshot"), false);
    options.addText(QStringLiteral("-accel"), QStringLiteral("b"));
    options.addText(QStringLiteral("-M"), QStringLiteral("virt"));
    options.addFlag(QStringLiteral("-nographic"));
    options.addText(QStringLiteral("--device"), QStringLiteral("ac97"));
    options.addText(QStringLiteral("-accel"), QStringLiteral("a"));
    options.addText(QStringLiteral("-Z"), QStringLiteral("z"));

    // Upper case sorts before lower case, and a cleared flag leaves nothing behind.
    const QStringList expected{"--device", "ac97", "-M", "virt", "-Z", "z", "-accel", "b",
                               "-accel", "a", "-nographic", "-vga", "std"};
    QCOMPARE(QemuCommandLine::flatten(options), expected);
}

void tst_QemuCommandLine::readOnlySdCardIsSkipped()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QFile card(dir.filePath(QStringLiteral("sdcard.qcow2")));
    QVERIFY(card.open(QIODevice::WriteOnly));
    card.close();
    QVERIFY(card.setPermissions(QFile::ReadOwner | QFile::ReadUser));
    if (QFileInfo(card.fileName()).isWritable())
        QSKIP("running with rights that ignore file permissions");

    QemuLaunchSpec launch = referenceDevice();
    launch.machinePath = dir.path();
    launch.sdCardEnabled = true;
    LogCapture log;
    const QStringList arguments = QemuCommandLine(HostPlatform::forWindows()).arguments(launch, QString());
    QVERIFY(!arguments.join(QLatin1Char(' ')).contains(QLatin1String("sdcard.qcow2")));
    QVERIFY2(log.contains(QtWarningMsg, QStringLiteral("[VMTools] Failed to mount SdCard disk ")
                                                + card.fileName()
                                                + QStringLiteral(" , disk is either missing or "
                                                                 "doesn't have RW permission.")),
             qPrintable(log.dump()));
}

void tst_QemuCommandLine::startCommandText_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("expected");

    QTest::newRow("no arguments") << "qemu" << QStringList() << "\"qemu\"";
    QTest::newRow("options with values")
            << "C:/Program Files/qemu/qemu-system-x86_64.exe"
            << QStringList{"-m", "4096M", "-nographic", "-drive", "file=D/system.qcow2,format=qcow2"}
            << "\"C:/Program Files/qemu/qemu-system-x86_64.exe\" \\\n\"-m\" \"4096M\"  \\\n"
               "\"-nographic\"  \\\n\"-drive\" \"file=D/system.qcow2,format=qcow2\"";
    QTest::newRow("leading value") << "q" << QStringList{"value", "-x"} << "\"q\"\"value\"  \\\n\"-x\"";
    QTest::newRow("empty argument") << "q" << QStringList{"-a", ""} << "\"q\" \\\n\"-a\" \"\"";
}

void tst_QemuCommandLine::startCommandText()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(QString, expected);
    QCOMPARE(QemuCommandLine::startCommandText(program, arguments), expected);
}

QTEST_GUILESS_MAIN(tst_QemuCommandLine)
#include "tst_qemucommandline.moc"
