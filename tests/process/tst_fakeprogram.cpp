#include "fakeprogram.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The stand-in drives every test that plays QEMU or qemu-img, so its rules must hold.
class tst_FakeProgram : public QObject
{
    Q_OBJECT

private slots:
    void rules_data();
    void rules();
    void badRulesFile_data();
    void badRulesFile();
    void timesAndCalls();
    void passthrough();
};

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

static Run run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(10000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished(5000);
        return {};
    }
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

void tst_FakeProgram::rules_data()
{
    QTest::addColumn<QJsonArray>("rules");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");
    QTest::addColumn<QByteArray>("err");

    const QJsonObject convert{{"match", QJsonArray{"convert", "-O qcow2"}},
                              {"stdout", "converted"}, {"stderr", "warn ✓"}, {"exit", 5}};
    const QJsonObject fallback{{"stdout", "other"}};
    QTest::newRow("all texts occur") << QJsonArray{convert, fallback}
                                     << QStringList{"convert", "-O", "qcow2", "a.vmdk"}
                                     << 5 << QByteArray("converted") << QByteArray("warn ✓");
    QTest::newRow("one text missing: next rule") << QJsonArray{convert, fallback}
                                                 << QStringList{"convert", "a.vmdk"}
                                                 << 0 << QByteArray("other") << QByteArray();
    QTest::newRow("no rule matches") << QJsonArray{convert} << QStringList{"info"}
                                     << 0 << QByteArray() << QByteArray();
}

void tst_FakeProgram::rules()
{
    QFETCH(QJsonArray, rules);
    QFETCH(QStringList, arguments);
    QTemporaryDir dir;
    FakeProgram program(dir.path(), QStringLiteral("qemu-img"));
    QVERIFY(program.isValid());

    const Run bare = run(program.path(), arguments);
    QCOMPARE(bare.exitCode, 0);
    QVERIFY(bare.out.isEmpty() && bare.err.isEmpty());

    program.setRules({{"rules", rules}});
    const Run scripted = run(program.path(), arguments);
    QTEST(scripted.exitCode, "exitCode");
    QTEST(scripted.out, "out");
    QTEST(scripted.err, "err");
}

void tst_FakeProgram::badRulesFile_data()
{
    QTest::addColumn<QByteArray>("rulesText");
    QTest::newRow("not JSON") << QByteArray("{\"rules\": [");
    QTest::newRow("not an object") << QByteArray("[]");
    QTest::newRow("rule not an object") << QByteArray("{\"rules\": [1]}");
    QTest::newRow("exit not a number") << QByteArray("{\"rules\": [{\"exit\": \"1\"}]}");
    QTest::newRow("match not a list") << QByteArray("{\"rules\": [{\"match\": \"x\"}]}");
    QTest::newRow("file argument out of range") << QByteArray("{\"rules\": [{\"create_file_arg\": 9}]}");
}

void tst_FakeProgram::badRulesFile()
{
    QFETCH(QByteArray, rulesText);
    QTemporaryDir dir;
    FakeProgram program(dir.path(), QStringLiteral("qemu-img"));
    QFile rules(program.path() + QLatin1String(".rules.json"));
    QVERIFY(rules.open(QIODevice::WriteOnly));
    rules.write(rulesText);
    rules.close();

    const Run result = run(program.path(), {QStringLiteral("info")});
    QCOMPARE(result.exitCode, 3);
    QVERIFY(result.out.isEmpty());
    QVERIFY(result.err.startsWith("qvfakeprogram: "));
}

void tst_FakeProgram::timesAndCalls()
{
    QTemporaryDir dir;
    FakeProgram program(dir.path(), QStringLiteral("qemu-img"));
    const QJsonObject once{{"match", QJsonArray{"create"}}, {"exit", 1}, {"times", 1},
                           {"create_file_arg", -2}};
    program.setRules({{"calls", true}, {"rules", QJsonArray{once}}});

    const QString made = dir.filePath(QStringLiteral("made.qcow2"));
    QCOMPARE(run(program.path(), {QStringLiteral("create"), made, QStringLiteral("1G")}).exitCode, 1);
    QVERIFY(QFile::exists(made));
    QCOMPARE(run(program.path(), {QStringLiteral("create"), QStringLiteral("x y")}).exitCode, 0);
    QCOMPARE(run(program.path(), {}).exitCode, 0);
    QCOMPARE(program.calls(), (QStringList{"create\t" + made + "\t1G", "create\tx y", ""}));

    // New rules start counting afresh.
    program.setRules({{"rules", QJsonArray{once}}});
    QCOMPARE(run(program.path(), {QStringLiteral("create"), made, QStringLiteral("1G")}).exitCode, 1);
}

void tst_FakeProgram::passthrough()
{
    QTemporaryDir dir;
    FakeProgram real(dir.filePath(QStringLiteral("real")), QStringLiteral("qemu-img"));
    real.setRules({{"rules", QJsonArray{QJsonObject{{"match", QJsonArray{"info"}},
                                                    {"stdout", "real"}, {"exit", 7}}}}});
    FakeProgram front(dir.filePath(QStringLiteral("front")), QStringLiteral("qemu-img"));
    front.setRules({{"passthrough", real.path()},
                    {"rules", QJsonArray{QJsonObject{{"match", QJsonArray{"convert"}}}}}});

    const Run forwarded = run(front.path(), {QStringLiteral("info")});
    QCOMPARE(forwarded.exitCode, 7);
    QCOMPARE(forwarded.out, QByteArray("real"));
    QCOMPARE(run(front.path(), {QStringLiteral("convert")}).exitCode, 0);
}

QTEST_GUILESS_MAIN(tst_FakeProgram)
#include "tst_fakeprogram.moc"
