#include "vmtoolsengine.h"

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
    CpuidRegisters registers;
#if defined(QV_CPUID_MSVC)
    int values[4] = {};
    __cpuidex(values, int(leaf), int(subleaf));
    registers.eax = quint32(values[0]);
    registers.ebx = quint32(values[1]);
    registers.ecx = quint32(values[2]);
    registers.edx = quint32(values[3]);
#elif defined(QV_CPUID_GNU)
    // The raw macro, not __get_cpuid_count: the caller asks for the extended leaf without
    // checking the highest supported one first.
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    __cpuid_count(leaf, subleaf, eax, ebx, ecx, edx);
    registers.eax = eax;
    registers.ebx = ebx;
    registers.ecx = ecx;
    registers.edx = edx;
#else
    Q_UNUSED(leaf);
    Q_UNUSED(subleaf);
#endif
    return registers;
}
