// What the platform tells the sanitizers. The functions are weak: without the sanitizer's runtime they are
// null and nothing happens.
#pragma once

#include <cstddef>

extern "C" {
void __tsan_acquire(void*) __attribute__((weak));
void __tsan_release(void*) __attribute__((weak));
void AnnotateIgnoreReadsBegin(const char*, int) __attribute__((weak));
void AnnotateIgnoreReadsEnd(const char*, int) __attribute__((weak));
void AnnotateIgnoreWritesBegin(const char*, int) __attribute__((weak));
void AnnotateIgnoreWritesEnd(const char*, int) __attribute__((weak));
void AnnotateIgnoreSyncBegin(const char*, int) __attribute__((weak));
void AnnotateIgnoreSyncEnd(const char*, int) __attribute__((weak));
void __asan_poison_memory_region(const volatile void*, std::size_t) __attribute__((weak));
void __asan_unpoison_memory_region(const volatile void*, std::size_t) __attribute__((weak));
}

namespace kernel::sanitizer {

// From here on ThreadSanitizer ignores everything that this thread does. The platform itself is not
// instrumented, but the C library's functions that it calls are.
inline void ignoreBegin() {
    if (AnnotateIgnoreReadsBegin != nullptr) {
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
}

inline void ignoreEnd() {
    if (AnnotateIgnoreReadsBegin != nullptr) {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
        AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    }
}

inline void acquire(const void* object) {
    if (__tsan_acquire != nullptr) {
        __tsan_acquire(const_cast<void*>(object));
    }
}

inline void release(const void* object) {
    if (__tsan_release != nullptr) {
        __tsan_release(const_cast<void*>(object));
    }
}

inline void poison(const void* address, std::size_t size) {
    if (__asan_poison_memory_region != nullptr) {
        __asan_poison_memory_region(address, size);
    }
}

inline void unpoison(const void* address, std::size_t size) {
    if (__asan_unpoison_memory_region != nullptr) {
        __asan_unpoison_memory_region(address, size);
    }
}

} // namespace kernel::sanitizer
