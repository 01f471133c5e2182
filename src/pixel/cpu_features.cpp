#include "pixel/cpu_features.h"

#include <intrin.h>

namespace {

constexpr ULONG SSSE3_BIT = 9; // of ECX
constexpr ULONG SSE41_BIT = 19;

} // namespace

CPU_FEATURES CPU_DetectFeatures() {
    int registers[4] = {}; // EAX, EBX, ECX, EDX
    __cpuidex(registers, 1, 0);
    const ULONG ecx = static_cast<ULONG>(registers[2]);
    return {.CpuHasSsse3 = (ecx >> SSSE3_BIT & 1) != 0, .CpuHasSse41 = (ecx >> SSE41_BIT & 1) != 0};
}
