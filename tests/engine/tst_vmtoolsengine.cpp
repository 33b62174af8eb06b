#include "casetable.h"
#include "hostdirectories.h"
#include "qemuengine.h"
#include "qemumachine.h"

#include <QTemporaryDir>

namespace {

QByteArray g_vendor;
quint32 g_ecx = 0;

// Answers CPUID from the row under test: the vendor in EBX, EDX, ECX and leaf 1's ECX. Each
// query is logged, so a row sees which leaves were read and in what order.
CpuidRegisters scriptedCpuid(quint32 leaf, quint32 subleaf)
{
    qDebug("cpuid %x %x", leaf, subleaf);
    CpuidRegisters r{};
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
    bool unusedFieldsClear() const { return m_text.isEmpty() && m_reserved == 0; }
};

} // namespace

class tst_VMToolsEngine : public QObject
{
    Q_OBJECT
    QTemporaryDir m_home;
private slots:
    void initTestCase() { qputenv("QV_HOME", m_home.path().toUtf8()); }

    void virtualizationTest_data() { addCaseRows("engine/cpuid.json"); }
    void virtualizationTest()
    {
        QV_FETCH_CASE;
        const QStringList lines = c["log"].toVariant().toStringList();
        g_vendor = c["vendor"].toString().toLatin1();
        g_ecx = c["ecx"].toString().toUInt(nullptr, 16);
        LogCapture log;
        QEMUEngine engine(HostPlatform::current(), scriptedCpuid);
        QCOMPARE(engine.cpuVendor(), c["vendor"].toString());
        QCOMPARE(engine.isVirtualizationSupported(), c["supported"].toBool());
        QCOMPARE(log.lines(QtDebugMsg).mid(0, lines.size()), lines);
    }

    void snapshotPolicy_data() { addCaseRows("engine/snapshotpolicy.json"); }
    void snapshotPolicy()
    {
        QV_FETCH_CASE;
        SnapshotEngine engine;
        engine.supported = c["supported"].toBool();
        QEMUMachine machine(&engine, m_home.filePath("none"));
        machine.setHasSnapshot(c["hasSnapshot"].toBool());
        bool useSnapshot = c["useSnapshot"].toBool();
        LogCapture log;
        QCOMPARE(engine.startMachineWithSnapshotPolicy(&machine, useSnapshot), 1);
        QCOMPARE(engine.starts, QStringList{c["started"].toString()});
        QCOMPARE(useSnapshot, c["flagAfter"].toBool());
        QV_COMPARE_JSON(logLines(log), c["log"].toArray());
    }

    // What the base engine answers where an engine adds nothing of its own; a folder in the
    // deployed devices directory counts as a device though nothing loads from it.
    void baseAnswers()
    {
        SnapshotEngine engine;
        QEMUMachine machine(&engine, m_home.filePath("none"));
        QVERIFY(QDir().mkpath(deployedDirectory() + "/bare"));
        QCOMPARE((QList<bool>{engine.VMToolsEngine::saveSnapshot(&machine, "s"), engine.VMToolsEngine::deleteSnapshot(&machine, "s"),
                              engine.VMToolsEngine::listSnapshots(&machine).isEmpty(), engine.machineExists("bare"), engine.machineExists("none"), engine.unusedFieldsClear()}),
                 (QList<bool>{true, true, true, true, false, true}));
    }
};

QTEST_GUILESS_MAIN(tst_VMToolsEngine)
#include "tst_vmtoolsengine.moc"
