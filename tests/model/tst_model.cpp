#include "casetable.h"
#include "hwprofile.h"
#include "jsonfieldreader.h"
#include "logging.h"
#include "osimage.h"
#include "version.h"

#include <QMetaProperty>

namespace {

Version versionOf(const QJsonArray &f)
{
    return Version{f[0].toInt(), f[1].toInt(), f[2].toInt(), f[3].toInt(), f[4].toInt()};
}

// One typed read of key "k"; the nested kinds read "n" below it.
QJsonValue readAs(const JsonFieldReader &r, const QString &kind)
{
    const QString k = QStringLiteral("k");
    if (kind == "string") return r.readString(k);
    if (kind == "int") return r.readInt(k);
    if (kind == "double") return r.readDouble(k);
    if (kind == "bool") return r.readBool(k);
    if (kind == "date") return QJsonValue::fromVariant(r.readDateTime(k));
    if (kind == "list") return QJsonArray::fromStringList(r.readStringList(k));
    if (kind == "enum") return int(r.readEnum<HwProfile::FormFactor>(k));
    if (kind == "source") return int(r.readEnum<HwProfile::Source>(k));
    if (kind == "mode") return int(r.readEnum<HwProfile::DisplayMode>(k));
    if (kind == "contains") return r.contains(k);
    if (kind == "object") return r.readObject(k).readInt(QStringLiteral("n"));
    QJsonArray values;
    for (const JsonFieldReader &element : r.readObjectArray(k))
        values.append(element.readInt(QStringLiteral("n")));
    return values;
}

// The written form plus what the host sees through the reflected properties.
QJsonObject describe(const HwProfile &p)
{
    QJsonObject d = serializeHwProfile(p);
    d.insert("has_sd_card", p.hasSdCard());
    const QMetaObject &meta = HwProfile::staticMetaObject;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
        const QVariant v = meta.property(i).readOnGadget(&p);
        const QSize size = v.toSize();
        d.insert(QStringLiteral("property ") + meta.property(i).name(),
                 v.type() == QVariant::Size ? QJsonValue(QStringLiteral("%1x%2").arg(size.width()).arg(size.height()))
                 : v.type() == QVariant::UserType ? QJsonValue(v.toInt()) : QJsonValue::fromVariant(v));
    }
    return d;
}

} // namespace

class tst_Model : public QObject
{
    Q_OBJECT
private slots:
    void version_data() { addCaseRows("model/version.json"); }
    void version()
    {
        QV_FETCH_CASE;
        LogCapture log;
        const Version v = c.contains("text") ? parseVersion(c["text"].toString()) : c["default"].toBool() ? Version() : versionOf(c["fields"].toArray());
        const QJsonArray fields{v.majorVersion, v.minorVersion, v.patchVersion, v.patchStatus, v.statusNumber};
        QV_COMPARE_JSON(fields, c["fields"].toArray());
        QCOMPARE(v.toString(), c["full"].toString());
        QCOMPARE(Log::debugText(v), c["full"].toString());
        QCOMPARE(v.toShortString(), c["short"].toString());
        QV_COMPARE_JSON(logLines(log), c["log"].toArray());
    }

    void versionOrder_data() { addCaseRows("model/versionorder.json"); }
    void versionOrder()
    {
        QV_FETCH_CASE;
        const Version a = parseVersion(c["a"].toString()), b = parseVersion(c["b"].toString());
        const int order = c["order"].toInt();
        // Both directions, all six operators.
        for (const auto &[x, y, o] : {std::make_tuple(a, b, order), std::make_tuple(b, a, -order)}) {
            const QJsonArray ops{x == y, x != y, x < y, x <= y, x > y, x >= y};
            QV_COMPARE_JSON(ops, (QJsonArray{o == 0, o != 0, o < 0, o <= 0, o > 0, o >= 0}));
        }
    }

    void fieldReader_data() { addCaseRows("model/fieldreader.json"); }
    void fieldReader()
    {
        QV_FETCH_CASE;
        QJsonObject in;
        if (c.contains("value"))
            in.insert("k", c["value"]);
        const JsonFieldReader reader(in);
        QV_COMPARE_JSON(QJsonArray{readAs(reader, c["read"].toString())}, QJsonArray{c["expect"]});
        QV_COMPARE_JSON(QJsonArray::fromStringList(reader.errors()), c["errors"].toArray());
        QCOMPARE(reader.hasErrors(), !reader.errors().isEmpty());
    }

    void hwProfile_data() { addCaseRows("model/hwprofile.json"); }
    void hwProfile()
    {
        QV_FETCH_CASE;
        LogCapture log;
        const HwProfile p = c["default"].toBool() ? HwProfile() : parseHwProfile(caseInput(c, "model"));
        QV_COMPARE_JSON(logLines(log), c["log"].toArray());
        if (!c.contains("expect")) {
            QVERIFY(p == HwProfile() && !p.isValid());
            return;
        }
        QV_COMPARE_JSON(describe(p), c["expect"].toObject());
        QVERIFY(parseHwProfile(serializeHwProfile(p)) == p);
    }

    void osImage_data() { addCaseRows("model/osimage.json"); }
    void osImage()
    {
        QV_FETCH_CASE;
        LogCapture log;
        const QJsonObject in = caseInput(c, "model");
        OsImage image = c["default"].toBool() ? OsImage() : parseOsImage(in);
        if (!c.contains("expect")) {
            QVERIFY(image == OsImage());
            // "<input>" stands for the whole input, which a faulty description is logged with.
            QJsonArray expected = c["log"].toArray();
            if (expected.first() == "warning: <input>")
                expected.replace(0, "warning: " + QString::fromUtf8(QJsonDocument(in).toJson()).trimmed());
            QV_COMPARE_JSON(logLines(log), expected);
            return;
        }
        QJsonObject actual = serializeOsImage(image);
        actual.insert("read_version", image.version.toString());
        const bool migrated = migrateOsImage(QStringLiteral("dev1"), image);
        actual.insert("after_migration", QJsonArray{migrated, image.arch, image.version.toString()});
        QV_COMPARE_JSON(actual, c["expect"].toObject());
        QV_COMPARE_JSON(logLines(log), c["log"].toArray());
        // The written format version is always the current one; everything else reads back.
        OsImage reread = parseOsImage(serializeOsImage(image));
        reread.version = image.version;
        QVERIFY(reread == image);
    }
};

QTEST_GUILESS_MAIN(tst_Model)
#include "tst_model.moc"
