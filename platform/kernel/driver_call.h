// The boundary between the driver and everything else. Every callback, thread start, completion and command
// call of the client goes into the driver through `callDriver`; every kernel and framework function that the
// driver calls opens a `PlatformCall` first. Between the two lies the driver's own time, which the processor
// time account of a task counts, and the driver's own memory accesses, which ThreadSanitizer judges.
// A loader of the Windows image replaces `callDriver` by its calling-convention bridge.
#pragma once

#include "platform/kernel/scheduler.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kernel {

// Whose code a task executes.
enum class Domain : std::uint8_t { Host, Driver, Platform };

// Notes level and locks on entry; on exit compares them and reports a driver that leaves with another level
// or with a lock it took inside. A platform call that the driver made may enter the driver again.
class DriverCall {
  public:
    explicit DriverCall(const char* callback);
    ~DriverCall();
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;

  private:
    Domain outerDomain_ = Domain::Host;
    const char* outerCallback_ = "";
    unsigned irql_ = 0;
    unsigned locks_ = 0;
};

template <typename Function, typename... Arguments>
auto callDriver(const char* callback, Function* function, Arguments... arguments) {
    DriverCall call(callback);
    return function(arguments...);
}

// Control left the driver, or the host program, for the platform; or the driver for a callback of its client.
// Costs two reads of the time stamp counter; nothing inside another platform call.
class PlatformCall {
  public:
    PlatformCall();
    ~PlatformCall();
    PlatformCall(const PlatformCall&) = delete;
    PlatformCall& operator=(const PlatformCall&) = delete;

  private:
    Domain outer_ = Domain::Platform;
};

// Processor time that each task, living or ended, spent inside the driver since the machine started.
struct DriverTime {
    std::string task;
    TaskKind kind = TaskKind::Host;
    std::uint64_t nanoseconds = 0;
};
std::vector<DriverTime> driverTimes();

// The same for the current task alone.
std::uint64_t driverTime();

// The callback that the current task is in ("EvtDeviceD0Entry"), or an empty string.
const char* currentCallback();

} // namespace kernel
