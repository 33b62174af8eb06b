#include "osimage.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstddef>
#include <cstdint>

namespace {
void quiet(QtMsgType, const QMessageLogContext &, const QString &) {}
} // namespace

// Qt 5.15's JSON parser loses the earlier value of a repeated key when that value is an
// object or array ({"a":{},"a":1}). The leak is inside libQt5Core, which has no frame
// pointers, so only its module name identifies it; this code itself allocates nothing by hand.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core.so\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QtMessageHandler previous = qInstallMessageHandler(quiet);
    Q_UNUSED(previous);
    const QByteArray bytes =
            QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    OsImage image = parseOsImage(QJsonDocument::fromJson(bytes).object());
    const OsImage again = parseOsImage(serializeOsImage(image));
    (void)again;
    migrateOsImage(QStringLiteral("fuzz"), image);
    (void)serializeOsImage(image);
    return 0;
}
