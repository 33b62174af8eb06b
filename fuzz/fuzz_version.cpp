#include "version.h"

#include <QString>

#include <cstddef>
#include <cstdint>

namespace {
void quiet(QtMsgType, const QMessageLogContext &, const QString &) {}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const QtMessageHandler previous = qInstallMessageHandler(quiet);
    Q_UNUSED(previous);
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
    const Version version = parseVersion(text);
    // The full form must read back as the same value, and comparison must be a total order.
    const Version again = parseVersion(version.toString());
    if (again != version || version < again || version > again)
        __builtin_trap();
    (void)version.toShortString();
    return 0;
}
