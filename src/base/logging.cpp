#include "logging.h"

Q_LOGGING_CATEGORY(lcVMTools, "quorvel.vmtools")

namespace Log {

void write(QtMsgType type, const QStringList &parts)
{
    const QString line = parts.join(QLatin1Char(' '));
    switch (type) {
    case QtDebugMsg:
        qCDebug(lcVMTools).noquote() << line;
        break;
    case QtInfoMsg:
        qCInfo(lcVMTools).noquote() << line;
        break;
    case QtWarningMsg:
        qCWarning(lcVMTools).noquote() << line;
        break;
    default:
        qCCritical(lcVMTools).noquote() << line;
        break;
    }
}

} // namespace Log
