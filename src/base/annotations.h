// What compilers and analysers are told beyond the language: source annotations (<sal.h>) for that of the
// Microsoft compiler, lock contracts for Clang's thread-safety analysis, processor features of single
// functions, and wide strings that are right for each compiler.
//
// A function that a header declares without an IRQL annotation can be called at any IRQL.
#pragma once

#include <ntddk.h>
#include <sal.h>

#if defined(__clang__)
#define DRIVER_TSA(x) __attribute__((x))
#else
#define DRIVER_TSA(x)
#endif

#define TSA_CAPABILITY(name) DRIVER_TSA(capability(name))
#define TSA_SCOPED DRIVER_TSA(scoped_lockable)
#define TSA_GUARDED_BY(lock) DRIVER_TSA(guarded_by(lock))
#define TSA_REQUIRES(...) DRIVER_TSA(requires_capability(__VA_ARGS__))
#define TSA_ACQUIRE(...) DRIVER_TSA(acquire_capability(__VA_ARGS__))
#define TSA_RELEASE(...) DRIVER_TSA(release_capability(__VA_ARGS__))
#define TSA_EXCLUDES(...) DRIVER_TSA(locks_excluded(__VA_ARGS__))
#define TSA_NO_ANALYSIS DRIVER_TSA(no_thread_safety_analysis)

// MSVC lets every function use every instruction; GCC and Clang need an attribute on each function that
// uses the extended ones. A caller checks the processor's flags before it calls such a function.
#if defined(__GNUC__)
#define TARGET_SSSE3 __attribute__((target("ssse3")))
#define TARGET_SSE41 __attribute__((target("sse4.1")))
#else
#define TARGET_SSSE3
#define TARGET_SSE41
#endif

// 16-bit characters: `wchar_t` where it has 16 bits, `char16_t` elsewhere.
#if defined(_WIN32)
#define WIDE(text) L##text
#else
#define WIDE(text) u##text
#endif
