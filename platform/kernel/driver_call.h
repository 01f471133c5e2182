// The entry into the driver. Every callback, thread start, completion and command call of the client goes
// into the driver through `callDriver`. A loader of the Windows image replaces `callDriver` by its
// calling-convention bridge.
#pragma once

#include "platform/kernel/platform_call.h"

#include <vector>

namespace kernel {

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
    unsigned criticalRegions_ = 0;
};

template <typename Function, typename... Arguments>
auto callDriver(const char* callback, Function* function, Arguments... arguments) {
    DriverCall call(callback);
    return function(arguments...);
}

// While it exists, the calling host task stands for a thread of the system, such as the PnP manager's.
class SystemWork {
  public:
    SystemWork();
    ~SystemWork();
    SystemWork(const SystemWork&) = delete;
    SystemWork& operator=(const SystemWork&) = delete;

  private:
    bool outer_ = false;
};

// Reports SystemThread when the driver makes a call that only system threads may make in a thread of its
// client.
void requireSystemThread(const char* call);

// One entry for each task, or name and kind of tasks that have ended.
std::vector<DriverTime> driverTimes();

} // namespace kernel
