// The rules that a driver must follow. A broken rule is reported once, with the call, the object, the task,
// the time and the seed, and stops the run.
#pragma once

#include "platform/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace verifier {

enum class Rule : std::uint8_t {
    IrqlTooHigh,    // a call above its IRQL limit
    IrqlChanged,    // a callback returned at another level than it was entered at
    LockLeftHeld,   // a callback returned with a spin lock it took
    CriticalRegion, // a callback returned with another number of mutexes than it had: APCs stay disabled
    WaitAtDispatch, // a wait with a time-out other than zero at DISPATCH_LEVEL
    LockOrder,      // two locks taken in both orders
    LockRecursion,  // a spin lock taken twice by one holder
    LockOwner,      // a lock released by a task that does not hold it
    LockLifetime,   // a lock's memory given back while it is held, an event's while a task waits for it
    RequestNotFormatted,
    RequestPending, // a request sent, reused or formatted while it is pending
    RequestCompletedTwice,
    RequestCancelled, // a request sent that was cancelled before, without a reuse
    TargetState,      // a target started while it is being stopped, or stopped by its own recovery
    ReaderRunning,    // a continuous reader that runs on when its pipe goes or the device leaves D0
    BufferLifetime,   // a buffer, MDL or URB freed while a transfer uses it
    BufferTooShort,
    HandleStale, // a handle of a deleted object, or of another type
    HandleDeletedTwice,
    UseAfterRemoval, // a handle or context used after the removal of its device
    ObjectTree,      // a parent that may not own the child, a reference dropped too often
    PoolTag,         // a block freed with another tag, or allocated without one
    PoolOverrun,     // the guard bytes around a block are damaged
    PoolFreedTwice,
    PoolLeak,       // blocks or objects left when the driver was unloaded
    SystemThread,   // a call that belongs in a system thread made in a thread of the client
    UsbTarget,      // the USB target created outside prepare-hardware, a reader configured elsewhere
    UsbPipeHandle,  // a pipe handle from before the last configuration
    PnpOrder,       // a call that the device's PnP or power state does not allow
    PnpStatus,      // a PnP callback returned a status that the framework does not accept from it
    CallbackObject, // a timer or work item set going while it is deleted, two stops that wait for one timer
    ThreadLeak,     // a driver thread still running at unload
    ListCorruption, // list links that do not point back
    Argument,       // a value outside the documented range
    Deadlock,
    StepLimit, // must be the last one
};
constexpr std::size_t kRuleCount = static_cast<std::size_t>(Rule::StepLimit) + 1;

std::string_view ruleName(Rule rule);

struct Report {
    Rule rule = Rule::Argument;
    std::string call;   // the platform call that found it
    std::string object; // what it is about
    std::string detail; // one sentence
    std::string task;
    base::Time time = 0;
    std::uint64_t seed = 0;

    // One line, ending in the `SIM_SEED=...` that replays it.
    std::string text() const;
};

// Thrown out of the machine's run, on the thread that called it.
class Stopped : public std::runtime_error {
  public:
    explicit Stopped(Report what);
    const Report& report() const { return report_; }

  private:
    Report report_;
};

// The run that the verifier watches. The kernel's scheduler implements it.
class Run {
  public:
    // The calling task, or null on a thread that is none.
    virtual const std::string* taskName() const = 0;
    virtual unsigned irql() const = 0;

    virtual base::Time now() const = 0;
    virtual std::uint64_t seed() const = 0;

    // Stops every task where it is and ends the run, which throws `Stopped`. Called on a task, which never
    // goes on. The first report counts.
    [[noreturn]] virtual void stop(const Report& report) = 0;

  protected:
    ~Run() = default;
};

// The run of the current machine; null between machines.
void watch(Run* run);

// Reports the broken rule and ends the run. Outside of any task it throws `Stopped` itself.
[[noreturn]] void fail(Rule rule, std::string_view call, std::string object, std::string detail);

// Fails with IrqlTooHigh when the current level is above `limit`.
void requireIrql(std::string_view call, unsigned limit);

} // namespace verifier
