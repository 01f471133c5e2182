// The one way into the driver. Every callback, thread start, completion and command call of the client goes
// through `callDriver`, which checks that the driver leaves the processor as it found it, and which a loader
// of the Windows image replaces by its calling-convention bridge.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

namespace kernel {

// Notes level and locks on entry; on exit compares them, reports a driver that leaves with another level or
// with a lock it took inside, and adds the processor time to the account of the current task.
class DriverCall {
  public:
    explicit DriverCall(const char* callback);
    ~DriverCall();
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;

  private:
    const char* callback_;
    const char* outer_;
    unsigned irql_;
    unsigned locks_;
    std::uint64_t begin_;
};

template <typename Function, typename... Arguments>
auto callDriver(const char* callback, Function* function, Arguments... arguments) {
    DriverCall call(callback);
    return function(arguments...);
}

} // namespace kernel
