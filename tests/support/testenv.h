#pragma once

#include <QStandardPaths>
#include <QString>
#include <QtTest>

// Finds a program on PATH. Tests that need it skip when it is missing, except when
// QV_REQUIRE_QEMU=1 (the test script sets it), where a missing program fails the test.
inline QString requiredProgramPath(const QString &name)
{
    return QStandardPaths::findExecutable(name);
}

inline bool programsAreRequired()
{
    return qEnvironmentVariable("QV_REQUIRE_QEMU") == QLatin1String("1");
}

#define QV_REQUIRE_PROGRAM(var, name)                                                      \
    const QString var = requiredProgramPath(QStringLiteral(name));                         \
    do {                                                                                   \
        if (var.isEmpty()) {                                                               \
            if (programsAreRequired())                                                     \
                QFAIL(name " is not installed and QV_REQUIRE_QEMU=1");                     \
            QSKIP(name " is not installed");                                               \
        }                                                                                  \
    } while (false)
