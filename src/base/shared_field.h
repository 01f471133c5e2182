// Plain fields that one side writes and others poll without a lock. Every access uses these functions,
// so that the compiler neither adds nor removes one and a reader that sees the new value also sees what was
// written before it. For fields of one, two or four bytes and for pointers.
#pragma once

#include <ntddk.h>

template <typename T>
inline T SHARED_Read(const T& field) {
#if defined(__GNUC__)
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
#else
    // Aligned loads of a volatile object have acquire order on x64 with /volatile:ms, the compiler's default.
    return *const_cast<const volatile T*>(&field);
#endif
}

template <typename T, typename V>
inline void SHARED_Write(T& field, V value) {
#if defined(__GNUC__)
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
#else
    *const_cast<volatile T*>(&field) = static_cast<T>(value);
#endif
}
