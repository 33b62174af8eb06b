#include "casetable.h"
#include "errortriggers.h"
#include "qemudiagnosis.h"

class tst_QemuDiagnosis : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { qunsetenv("QV_TRIGGER_ERROR"); }
    // A row: qemu.log's "text" (null: no file; each character one byte), QV_TRIGGER_ERROR
    // ("trigger", null: unset), which of qemunotinstalled, hypervhaxmerror and
    // memorynotsupportederror are "honoured", the "expected" diagnosis and the whole "log"
    // (the file's folder shown as D).
    void diagnose_data() { addCaseRows("qemu/diagnosis.json"); }
    void diagnose();
};

void tst_QemuDiagnosis::diagnose()
{
    QV_FETCH_CASE;
    const int expected = c["expected"].toInt();
    QTemporaryDir dir;
    const QString path = dir.filePath("qemu.log");
    QVERIFY(c["text"].isNull() || writeFile(path, c["text"].toString().toLatin1()));
    if (!c["trigger"].isNull())
        qputenv("QV_TRIGGER_ERROR", c["trigger"].toString().toLatin1());
    QCOMPARE(QString::number(ErrorTriggers::qemuNotInstalled()) + QString::number(ErrorTriggers::hypervisorError())
             + QString::number(ErrorTriggers::memoryNotSupported()), c["honoured"].toString());
    QVERIFY(!isErrorTriggerSet(""));

    LogCapture capture;
    QCOMPARE(int(diagnoseQemuErrors(path)), expected);
    QV_COMPARE_JSON(QJsonArray::fromStringList(capture.all().replaceInStrings(dir.path(), "D")), c["log"].toArray());

    // Each check reads the file again and holds for its own cause only. A braced list
    // evaluates in order, so the checks run as a start runs them.
    capture.clear();
    const bool checks[] = {isDeviceBusy(path), isSystemFileUsed(path), isPortUsed(path), isMemorySizeNotSupported(path)};
    for (int i = 0; i < 4; ++i)
        QCOMPARE(checks[i], expected == i + 3);
    QCOMPARE(capture.lines(QtDebugMsg), QStringList({"Checking if device or resource is busy...",
             "Checking if another process is using a system file of QEMU...",
             "Checking if another process is using the port of QEMU...", "Checking if memory size not supported on machine..."}));
}

QTEST_GUILESS_MAIN(tst_QemuDiagnosis)
#include "tst_qemudiagnosis.moc"
