#include "logcapture.h"
#include "qemuengine.h"
#include "qemumachine.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

QByteArray g_vendor;
quint32 g_ecx = 0;

// Answers CPUID from the row under test: the vendor in EBX, EDX, ECX and leaf 1's ECX.
CpuidRegisters scriptedCpuid(quint32 leaf, quint32)
{
    CpuidRegisters r;
    if (leaf == 0) {
        const QByteArray v = g_vendor.leftJustified(12, '\0');
        memcpy(&r.ebx, v.constData(), 4);
        memcpy(&r.edx, v.constData() + 4, 4);
        memcpy(&r.ecx, v.constData() + 8, 4);
    } else {
        r.ecx = leaf == 1 ? g_ecx : 0xffffffffu;  // the extended leaf must not decide
    }
    return r;
}

// An engine that can take snapshots, recording which snapshot each start asked for.
struct SnapshotEngine : QEMUEngine
{
    bool supported = true;
    QStringList starts;
    bool isSnapshotSupported(VMToolsMachine *) const override { return supported; }
    int startMachine(VMToolsMachine *, const QString &name) override { starts << name; return 1; }
};

} // namespace

class tst_VMToolsEngine : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
private slots:
    void initTestCase() { qputenv("QV_HOME", m_home.path().toUtf8()); }

    void virtualizationTest_data()
    {
        QTest::addColumn<QByteArray>("vendor");
        QTest::addColumn<quint32>("ecx");
        QTest::addColumn<bool>("supported");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("intel vmx") << QByteArray("GenuineIntel") << 0x20u << true
                                   << QStringList{"[VMTools] Chipset: GenuineIntel", "[VMTools] CPUID 0x1 (Intel): ECX= 20"};
        QTest::newRow("intel bit 2 only") << QByteArray("GenuineIntel") << 0xffffffdfu << false
                                          << QStringList{"[VMTools] Chipset: GenuineIntel", "[VMTools] CPUID 0x1 (Intel): ECX= ffffffdf"};
        QTest::newRow("amd bit 2") << QByteArray("AuthenticAMD") << 0x4u << true
                                   << QStringList{"[VMTools] Chipset: AuthenticAMD", "[VMTools] CPUID 0x80000001 (AMD): ECX= 4"};
        QTest::newRow("amd vmx only") << QByteArray("AuthenticAMD") << 0x20u << false
                                      << QStringList{"[VMTools] Chipset: AuthenticAMD", "[VMTools] CPUID 0x80000001 (AMD): ECX= 20"};
        QTest::newRow("case differs") << QByteArray("genuineintel") << 0x20u << false
                                      << QStringList{"[VMTools] Chipset: genuineintel", "[VMTools] CPUID 0x80000001 (AMD): ECX= 20"};
        QTest::newRow("short vendor") << QByteArray("Abc") << 0x0u << false
                                      << QStringList{"[VMTools] Chipset: Abc", "[VMTools] CPUID 0x80000001 (AMD): ECX= 0"};
    }
    void virtualizationTest()
    {
        QFETCH(QByteArray, vendor);
        QFETCH(quint32, ecx);
        QFETCH(bool, supported);
        QFETCH(QStringList, lines);
        g_vendor = vendor;
        g_ecx = ecx;
        LogCapture log;
        QEMUEngine engine(HostPlatform::current(), scriptedCpuid);
        QCOMPARE(engine.cpuVendor(), QString::fromLatin1(vendor));
        QCOMPARE(engine.isVirtualizationSupported(), supported);
        QCOMPARE(log.lines(QtDebugMsg).mid(0, 2), lines);
    }

    void snapshotPolicy_data()
    {
        QTest::addColumn<bool>("supported");
        QTest::addColumn<bool>("hasSnapshot");
        QTest::addColumn<bool>("useSnapshot");
        QTest::addColumn<QString>("started");
        QTest::addColumn<bool>("flagAfter");
        QTest::addColumn<QString>("line");
        QTest::newRow("cold boot asked") << true << true << false << "" << false << "";
        QTest::newRow("unsupported") << false << true << true << "" << false << "[VMTools] Snapshot not supported, fallback on cold boot";
        QTest::newRow("snapshot there") << true << true << true << "latest" << true << "";
        QTest::newRow("no snapshot") << true << false << true << "" << false << "[VMTools] No snapshot found, fallback on cold boot";
    }
    void snapshotPolicy()
    {
        QFETCH(bool, supported);
        QFETCH(bool, hasSnapshot);
        QFETCH(bool, useSnapshot);
        QFETCH(QString, started);
        QFETCH(bool, flagAfter);
        QFETCH(QString, line);
        SnapshotEngine engine;
        engine.supported = supported;
        QEMUMachine machine(&engine, m_home.filePath("none"));
        machine.setHasSnapshot(hasSnapshot);
        LogCapture log;
        QCOMPARE(engine.startMachineWithSnapshotPolicy(&machine, useSnapshot), 1);
        QCOMPARE(engine.starts, QStringList{started});
        QCOMPARE(useSnapshot, flagAfter);
        QCOMPARE(log.lines(QtDebugMsg), line.isEmpty() ? QStringList() : QStringList{line});
    }

};

QTEST_GUILESS_MAIN(tst_VMToolsEngine)
#include "tst_vmtoolsengine.moc"
