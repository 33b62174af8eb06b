#include "version.h"

#include "logging.h"

#include <QStringList>

Version parseVersion(const QString &text)
{
    struct Marker
    {
        const char *text;
        Version::PatchStatus status;
    };
    // Tried in this order, so "1.0.0-alpha1-rc2" is an alpha.
    static const Marker markers[] = {
        {"-alpha", Version::Alpha},
        {"-beta", Version::Beta},
        {"-rc", Version::Rc},
    };

    Version version;
    QStringList parts{text};
    for (const Marker &marker : markers) {
        const QStringList split = text.split(QLatin1String(marker.text), Qt::KeepEmptyParts);
        if (split.size() >= 2) {
            parts = split;
            version.patchStatus = marker.status;
            break;
        }
    }

    // A missing number, or one that is not a plain decimal integer, reads as 0 (toInt's
    // answer to anything it cannot convert), so version text never fails.
    const QStringList numbers = parts.first().split(QLatin1Char('.'), Qt::KeepEmptyParts);
    version.majorVersion = numbers.value(0).toInt();
    version.minorVersion = numbers.value(1).toInt();
    version.patchVersion = numbers.value(2).toInt();
    version.statusNumber = (parts.size() >= 2 ? parts.at(1) : numbers.value(3)).toInt();
    return version;
}

QString Version::toString() const
{
    QString text = QStringLiteral("%1.%2.%3").arg(majorVersion).arg(minorVersion).arg(patchVersion);
    switch (patchStatus) {
    case Alpha:
        text += QStringLiteral("-alpha%1").arg(statusNumber);
        break;
    case Beta:
        text += QStringLiteral("-beta%1").arg(statusNumber);
        break;
    case Rc:
        text += QStringLiteral("-rc%1").arg(statusNumber);
        break;
    case Release:
        if (statusNumber != 0)
            text += QStringLiteral(".%1").arg(statusNumber);
        break;
    case Unknown:
        Log::critical("Unknown patch status.");
        text += QLatin1String("-unknown");
        break;
    default:
        break;
    }
    return text;
}

QString Version::toShortString() const
{
    return QStringLiteral("%1.%2").arg(majorVersion).arg(minorVersion);
}

QDebug operator<<(QDebug debug, const Version &version)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << version.toString();
    return debug;
}
