// Compiler intrinsics under the names of the Microsoft compiler.
#pragma once

#include <immintrin.h>
#include <interlocked.h>

// The machine may hide features of the host's processor from the driver.
extern "C" void KernelCpuid(int registers[4], int leaf, int subleaf);

#undef __cpuid
#undef __cpuidex
inline void __cpuidex(int registers[4], int leaf, int subleaf) {
    KernelCpuid(registers, leaf, subleaf);
}
inline void __cpuid(int registers[4], int leaf) {
    KernelCpuid(registers, leaf, 0);
}

#define _InterlockedIncrement InterlockedIncrement
#define _InterlockedDecrement InterlockedDecrement
#define _InterlockedExchange InterlockedExchange
#define _InterlockedExchangeAdd InterlockedExchangeAdd
#define _InterlockedCompareExchange InterlockedCompareExchange
#define _InterlockedOr InterlockedOr
#define _InterlockedAnd InterlockedAnd
#define _ReadWriteBarrier() __asm__ __volatile__("" ::: "memory")

inline UCHAR _BitScanForward(ULONG* index, ULONG mask) {
    if (mask == 0) {
        return 0;
    }
    *index = (ULONG)__builtin_ctz(mask);
    return 1;
}
inline UCHAR _BitScanReverse(ULONG* index, ULONG mask) {
    if (mask == 0) {
        return 0;
    }
    *index = 31 - (ULONG)__builtin_clz(mask);
    return 1;
}
inline UCHAR _BitScanForward64(ULONG* index, ULONGLONG mask) {
    if (mask == 0) {
        return 0;
    }
    *index = (ULONG)__builtin_ctzll(mask);
    return 1;
}
inline UCHAR _BitScanReverse64(ULONG* index, ULONGLONG mask) {
    if (mask == 0) {
        return 0;
    }
    *index = 63 - (ULONG)__builtin_clzll(mask);
    return 1;
}
