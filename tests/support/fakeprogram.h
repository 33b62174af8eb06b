#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

// Installs the stand-in program under a real program name (the platform's program suffix
// is added) in binDir, and scripts its behaviour through its rules file; see
// tests/support/programs/qvfakeprogram.cpp for the rules format.
class FakeProgram
{
public:
    FakeProgram(const QString &binDir, const QString &programName);

    // Writes the rules and forgets how often "times"-limited rules were used.
    void setRules(const QJsonObject &rules);
    // One entry per recorded run (with "calls": true): its arguments joined by tabs.
    QStringList calls() const;
    QString path() const { return m_path; }
    bool isValid() const { return m_valid; }

private:
    QString m_path;
    bool m_valid = false;
};
