#include "vmtoolsengine.h"
#include "vmtoolsmachine.h"

#include <QtTest>

#include <cstring>
#include <type_traits>

namespace {

template <typename Class, typename Function>
using Member = Function Class::*;

// Itanium C++ ABI: a pointer to a virtual member holds 1 + the byte offset of its vtable
// entry. The virtual destructor takes the first two entries, so operation n sits at n + 1.
template <typename Pointer>
int slotOf(Pointer member)
{
    static_assert(sizeof(Pointer) == 2 * sizeof(std::ptrdiff_t), "Itanium member pointer");
    std::ptrdiff_t words[2];
    std::memcpy(words, &member, sizeof words);
    return words[0] % 2 == 1 ? int((words[0] - 1) / std::ptrdiff_t(sizeof(void *))) - 1 : -1;  // -1: not virtual
}

// Slot 0 of both: hosts destroy what they were given through the base class.
static_assert(std::has_virtual_destructor<VMToolsEngine>::value, "engine slot 0");
static_assert(std::has_virtual_destructor<VMToolsMachine>::value, "machine slot 0");

} // namespace

// Hosts call the engine and its machines through fixed vtable slots: a moved or retyped
// operation breaks every host built against the old layout.
class tst_InterfaceSlots : public QObject
{
    Q_OBJECT
private slots:
    void vtableLayout_data()
    {
        QTest::addColumn<int>("frozenSlot");
        QTest::addColumn<int>("actualSlot");
        QTest::addColumn<bool>("sameType");
#include "engine_slots.inc"
#include "machine_slots.inc"
    }
    void vtableLayout()
    {
        QFETCH(int, frozenSlot);
        QFETCH(int, actualSlot);
        QFETCH(bool, sameType);
        QCOMPARE(actualSlot, frozenSlot);
        QVERIFY2(sameType, "the operation's type differs from the frozen one");
    }
};

QTEST_GUILESS_MAIN(tst_InterfaceSlots)
#include "tst_interfaceslots.moc"
