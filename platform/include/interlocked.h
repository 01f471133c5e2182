// Interlocked operations. They are inline so that ThreadSanitizer sees a real atomic in the caller's own
// code; each is followed by a scheduling point, which the `free` scheduler makes a no-op.
#pragma once

#include <ntdef.h>

extern "C" void KernelSchedulingPoint();

#define DEFINE_INTERLOCKED_ARITHMETIC(suffix, type)                                                          \
    inline type InterlockedIncrement##suffix(type volatile* target) {                                        \
        type result = __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);                                       \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedDecrement##suffix(type volatile* target) {                                        \
        type result = __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);                                       \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedExchangeAdd##suffix(type volatile* target, type value) {                          \
        type result = __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST);                                   \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedAdd##suffix(type volatile* target, type value) {                                  \
        type result = __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST);                                   \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedOr##suffix(type volatile* target, type value) {                                   \
        type result = __atomic_fetch_or(target, value, __ATOMIC_SEQ_CST);                                    \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedAnd##suffix(type volatile* target, type value) {                                  \
        type result = __atomic_fetch_and(target, value, __ATOMIC_SEQ_CST);                                   \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }

#define DEFINE_INTERLOCKED_EXCHANGE(suffix, type)                                                            \
    inline type InterlockedExchange##suffix(type volatile* target, type value) {                             \
        type result = __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);                                  \
        KernelSchedulingPoint();                                                                             \
        return result;                                                                                       \
    }                                                                                                        \
    inline type InterlockedCompareExchange##suffix(type volatile* target, type exchange, type comparand) {   \
        __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST,                   \
                                    __ATOMIC_SEQ_CST);                                                       \
        KernelSchedulingPoint();                                                                             \
        return comparand;                                                                                    \
    }

DEFINE_INTERLOCKED_ARITHMETIC(, LONG)
DEFINE_INTERLOCKED_ARITHMETIC(64, LONG64)
DEFINE_INTERLOCKED_EXCHANGE(, LONG)
DEFINE_INTERLOCKED_EXCHANGE(64, LONG64)
DEFINE_INTERLOCKED_EXCHANGE(Pointer, PVOID)

inline CHAR InterlockedExchange8(CHAR volatile* target, CHAR value) {
    CHAR result = __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
    KernelSchedulingPoint();
    return result;
}

#undef DEFINE_INTERLOCKED_ARITHMETIC
#undef DEFINE_INTERLOCKED_EXCHANGE

inline BOOLEAN InterlockedBitTestAndSet(LONG volatile* target, LONG bit) {
    return ((ULONG)InterlockedOr(target, (LONG)(1u << (bit & 31))) >> (bit & 31)) & 1;
}
inline BOOLEAN InterlockedBitTestAndReset(LONG volatile* target, LONG bit) {
    return ((ULONG)InterlockedAnd(target, (LONG) ~(1u << (bit & 31))) >> (bit & 31)) & 1;
}

// Single loads and stores with an order. They are no scheduling points: an interleaving around them differs
// from one around the neighbouring operations only in what the memory order already allows.
#define DEFINE_ORDERED_ACCESS(infix, suffix, type)                                                           \
    inline type Read##infix##Acquire##suffix(type const volatile* source) {                                  \
        return __atomic_load_n(source, __ATOMIC_ACQUIRE);                                                    \
    }                                                                                                        \
    inline type Read##infix##NoFence##suffix(type const volatile* source) {                                  \
        return __atomic_load_n(source, __ATOMIC_RELAXED);                                                    \
    }                                                                                                        \
    inline void Write##infix##Release##suffix(type volatile* destination, type value) {                      \
        __atomic_store_n(destination, value, __ATOMIC_RELEASE);                                              \
    }                                                                                                        \
    inline void Write##infix##NoFence##suffix(type volatile* destination, type value) {                      \
        __atomic_store_n(destination, value, __ATOMIC_RELAXED);                                              \
    }

DEFINE_ORDERED_ACCESS(, , LONG)
DEFINE_ORDERED_ACCESS(, 64, LONG64)
DEFINE_ORDERED_ACCESS(ULong, , ULONG)
DEFINE_ORDERED_ACCESS(Boolean, , BOOLEAN)
DEFINE_ORDERED_ACCESS(Pointer, , PVOID)

#undef DEFINE_ORDERED_ACCESS

inline void KeMemoryBarrier() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
#define MemoryBarrier() KeMemoryBarrier()
