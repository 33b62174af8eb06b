#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

// Installs the stand-in program under a real program name (plus the platform's program suffix)
// in binDir; its rules file scripts it (format: tests/support/programs/qvfakeprogram.cpp).
class FakeProgram
{
public:
    FakeProgram(const QString &binDir, const QString &programName);
    void setRules(const QJsonObject &rules);  // also forgets the uses of "times"-limited rules
    QStringList calls() const;                // one entry per recorded run: its arguments joined by tabs
    QString path() const { return m_path; }
    bool isValid() const { return m_valid; }

private:
    QString m_path;
    bool m_valid = false;
};
