// Whose code a task executes, and the processor time that it spends inside the driver.
//
// Every kernel and framework function that the driver calls opens a `PlatformCall` first. What lies between
// the entry into the driver (see driver_call.h) and these calls is the driver's own time, which the account
// of a task counts, and the driver's own memory accesses, which ThreadSanitizer judges.
#pragma once

#include "platform/kernel/task.h"

#include <cstdint>
#include <string>

namespace kernel {

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

// The callback that the current task is in ("EvtDeviceD0Entry"), or an empty string.
const char* currentCallback();

// Processor time that a task, living or ended, spent inside the driver since the machine started.
struct DriverTime {
    std::string task;
    TaskKind kind = TaskKind::Host;
    std::uint64_t nanoseconds = 0;
};

// That of the current task alone.
std::uint64_t driverTime();

std::uint64_t driverNanoseconds(const Task& task);
void accountSleepBegins(Task& task);
void accountSleepEnds(Task& task);

// An entry into the driver begins or ends; `outer` is what the task executes around it.
void accountEntry(Task& task, Domain outer);
void accountExit(Task& task, Domain outer);

// Whose code the calling task executes from now on; tells ThreadSanitizer whether to ignore it.
void enterDomain(Task& task, Domain domain);

} // namespace kernel
