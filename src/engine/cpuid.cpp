#include "vmtoolsengine.h"

#include <cstring>

#if defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#  include <intrin.h>
#  define QV_CPUID_MSVC
#elif (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#  include <cpuid.h>
#  define QV_CPUID_GNU
#endif

// Executes CPUID with EAX = leaf and ECX = subleaf. On processors without the instruction
// every register reads as zero, which gives an empty vendor and no virtualisation support.
CpuidRegisters hostCpuid(quint32 leaf, quint32 subleaf)
{
    CpuidRegisters registers{};
#if defined(QV_CPUID_MSVC)
    // The intrinsic fills EAX, EBX, ECX and EDX in that order, as CpuidRegisters holds them.
    int values[sizeof registers / sizeof(int)];
    __cpuidex(values, int(leaf), int(subleaf));
    std::memcpy(&registers, values, sizeof registers);
#elif defined(QV_CPUID_GNU)
    // The raw macro, not __get_cpuid_count: the caller asks for the extended leaf without
    // checking the highest supported one first.
    __cpuid_count(leaf, subleaf, registers.eax, registers.ebx, registers.ecx, registers.edx);
#else
    Q_UNUSED(leaf);
    Q_UNUSED(subleaf);
#endif
    return registers;
}
