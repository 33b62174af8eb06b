#pragma once

#include <QDebug>
#include <QMetaType>
#include <QString>
#include <QtGlobal>

#include <tuple>

// A dotted version such as 1.2.3, 1.2.3-beta4 or 1.2.3.7. The status values rise from
// alpha to release so that plain field-by-field comparison orders pre-releases first.
struct Version
{
    enum PatchStatus : qint32 {
        Unknown = -400,
        Alpha = -300,
        Beta = -200,
        Rc = -100,
        Release = 0
    };

    qint32 majorVersion = 0;
    qint32 minorVersion = 0;
    qint32 patchVersion = 0;
    qint32 patchStatus = Release;
    qint32 statusNumber = 0;

    QString toString() const;
    QString toShortString() const;

    friend bool operator==(const Version &a, const Version &b) { return a.fields() == b.fields(); }
    friend bool operator!=(const Version &a, const Version &b) { return a.fields() != b.fields(); }
    friend bool operator<(const Version &a, const Version &b) { return a.fields() < b.fields(); }
    friend bool operator<=(const Version &a, const Version &b) { return a.fields() <= b.fields(); }
    friend bool operator>(const Version &a, const Version &b) { return a.fields() > b.fields(); }
    friend bool operator>=(const Version &a, const Version &b) { return a.fields() >= b.fields(); }

private:
    std::tuple<qint32, qint32, qint32, qint32, qint32> fields() const
    {
        return std::make_tuple(majorVersion, minorVersion, patchVersion, patchStatus, statusNumber);
    }
};

Q_DECLARE_METATYPE(Version)

Version parseVersion(const QString &text);

QDebug operator<<(QDebug debug, const Version &version);
