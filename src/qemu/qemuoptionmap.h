#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

// QEMU options keyed by name. Names iterate in UTF-16 code-unit order ("--device" before
// "-M" before "-accel"), which fixes the order of the final command line; the values of
// one name keep the order in which they were added, so "-accel whpx" stays before "hax".
class QemuOptionMap
{
public:
    // Either a text value ("-m 4096M") or a flag, which stands alone on the command line
    // when set and disappears when clear.
    struct Value
    {
        enum Kind { Text, FlagSet, FlagClear };
        QString text;  // of a Text value only
        Kind kind;

        static Value fromText(const QString &text) { return {text, Text}; }
        static Value fromFlag(bool on) { return {QString(), on ? FlagSet : FlagClear}; }
    };

    void addText(const QString &name, const QString &text);
    void addFlag(const QString &name, bool on = true);

    bool contains(const QString &name) const { return m_options.contains(name); }
    int count(const QString &name) const { return m_options.value(name).size(); }
    QVector<Value> values(const QString &name) const { return m_options.value(name); }
    QStringList names() const { return m_options.keys(); }
    bool isEmpty() const { return m_options.isEmpty(); }

    // Removes every occurrence of the name.
    void remove(const QString &name);
    // Both leave the map alone when there is no occurrence `index`; replaceText then answers false.
    void removeAt(const QString &name, qint64 index);
    bool replaceText(const QString &name, qint64 index, const QString &text);

private:
    QMap<QString, QVector<Value>> m_options;
};
