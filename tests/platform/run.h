// Runs a body on a machine without a driver.
#pragma once

#include "platform/kernel/scheduler.h"
#include "platform/usb/clock.h"
#include "platform/verifier/verifier.h"

#include <ntddk.h>

#include <functional>
#include <optional>

namespace platform_test {

inline kernel::SchedulerOptions sim(kernel::Strategy strategy, std::uint64_t seed = 1,
                                    unsigned processors = 2) {
    kernel::SchedulerOptions options;
    options.strategy = strategy;
    options.seed = seed;
    options.processors = processors;
    return options;
}

inline kernel::SchedulerOptions freeRunning(unsigned processors = 2) {
    kernel::SchedulerOptions options;
    options.mode = kernel::Mode::Free;
    options.processors = processors;
    return options;
}

// The verifier's report, when it stopped the run.
inline std::optional<verifier::Report> run(const kernel::SchedulerOptions& options,
                                           const std::function<void()>& body) {
    kernel::Scheduler scheduler(options);
    try {
        scheduler.run(body);
    } catch (const verifier::Stopped& stopped) {
        return stopped.report();
    }
    return std::nullopt;
}

inline void atDispatch(const std::function<void()>& body) {
    const unsigned old = kernel::raiseIrql(kernel::kDispatchLevel);
    body();
    kernel::lowerIrql(old);
}

inline void elsewhere(const std::function<void()>& body) {
    kernel::join(kernel::spawn("other", kernel::TaskKind::Host, body));
}

constexpr ULONG kTag = 0x74736554; // "Test" in memory order

inline UCHAR* allocate(SIZE_T size, ULONG tag = kTag) {
    return static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, size, tag));
}

// Sleeps on the machine's clock.
inline void sleepFor(kernel::Time duration) {
    const int channel = 0;
    kernel::waitUntil(&channel, {"sleepFor", nullptr, nullptr}, kernel::now() + duration,
                      [] { return false; });
}

} // namespace platform_test
