// The time base of the machine and of the devices in its ports.
#pragma once

#include <cstdint>
#include <functional>

namespace base {

// Time in units of 100 ns since the machine was switched on.
using Time = std::int64_t;

constexpr Time kMicrosecond = 10;
constexpr Time kMillisecond = 10'000;
constexpr Time kSecond = 10'000'000;

// What a model or a link needs of time. The machine implements it: virtual time under the `sim` scheduler,
// the real clock under `free`.
class Clock {
  public:
    virtual ~Clock() = default;

    virtual Time now() const = 0;

    // Runs `action` once at `due` (or at once when `due` has passed), never inside this call, at
    // DISPATCH_LEVEL on some processor. Actions with equal times run in the order they were scheduled.
    // Nothing is cancelled: an action that may have become stale checks for that itself.
    virtual void schedule(Time due, std::function<void()> action) = 0;
};

} // namespace base
