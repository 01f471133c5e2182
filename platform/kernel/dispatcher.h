// What the framework layer needs of spin locks and events beyond the kernel's own functions: the same
// operations under the name of the framework call, for the verifier's reports.
#pragma once

#include <ntddk.h>

#include <string_view>

namespace kernel {

// Raises to DISPATCH_LEVEL and returns the level to give back to `releaseSpinLock`. Callable at up to
// DISPATCH_LEVEL. `lock` is zero when free.
KIRQL acquireSpinLock(KSPIN_LOCK& lock, std::string_view call);
void releaseSpinLock(KSPIN_LOCK& lock, KIRQL oldIrql, std::string_view call);

// The machine's system time (100 ns since 1601) when it was switched on: absolute time-outs count from 1601.
constexpr LONGLONG kSystemTimeAtStart = 133'500'000'000'000'000; // January 2024

// The moment on the machine's clock that a kernel time-out means: null is never, zero or a positive value an
// absolute system time, a negative one a duration. Both end at a tick.
LONGLONG deadlineOf(const LARGE_INTEGER* timeout);

} // namespace kernel
