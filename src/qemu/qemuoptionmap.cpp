#include "qemuoptionmap.h"

void QemuOptionMap::addText(const QString &name, const QString &text)
{
    m_options[name].append(Value::fromText(text));
}

void QemuOptionMap::addFlag(const QString &name, bool on)
{
    m_options[name].append(Value::fromFlag(on));
}

void QemuOptionMap::remove(const QString &name)
{
    m_options.remove(name);
}

void QemuOptionMap::removeAt(const QString &name, qint64 index)
{
    const auto it = m_options.find(name);
    if (it == m_options.end() || index < 0 || index >= it->size())
        return;
    it->remove(int(index));
    // An emptied name must not linger: contains() decides whether an override adds or edits.
    if (it->isEmpty())
        m_options.erase(it);
}

bool QemuOptionMap::replaceText(const QString &name, qint64 index, const QString &text)
{
    const auto it = m_options.find(name);
    if (it == m_options.end() || index < 0 || index >= it->size())
        return false;
    (*it)[int(index)] = Value::fromText(text);
    return true;
}
