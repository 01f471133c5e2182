// The rules a driver must keep. A broken rule is reported once, with the call, the object, the task, the time
// and the seed, and stops the run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace verifier {

enum class Rule : std::uint8_t {
    IrqlTooHigh,    // a call above its IRQL limit
    IrqlChanged,    // a callback returned at another level than it was entered at
    LockLeftHeld,   // a callback returned with a lock it took
    WaitAtDispatch, // a wait with a time-out other than zero at DISPATCH_LEVEL
    LockOrder,      // two locks taken in both orders
    LockRecursion,  // a spin lock taken twice by one holder
    LockOwner,      // a lock released by someone who does not hold it
    LockLifetime,   // a lock's memory given back while it is held, an event's while somebody waits for it
    RequestNotFormatted,
    RequestPending, // a request sent, reused or formatted while it is still out
    RequestCompletedTwice,
    BufferLifetime, // a buffer, MDL or URB freed while a transfer uses it
    BufferTooShort,
    HandleStale, // a handle of a deleted object, or of another type
    HandleDeletedTwice,
    ObjectTree,  // a parent that may not own the child, a reference dropped too often
    PoolTag,     // a block freed with another tag, or allocated without one
    PoolOverrun, // the guard bytes around a block are damaged
    PoolFreedTwice,
    PoolLeak,       // blocks or objects left when the driver was unloaded
    UsbTarget,      // the USB target created outside prepare-hardware, a reader configured elsewhere
    UsbPipeHandle,  // a pipe handle from before the last configuration
    PnpOrder,       // a call that the device's PnP or power state does not allow
    ThreadLeak,     // a driver thread still running at unload
    ListCorruption, // list links that do not point back
    Argument,       // a value outside the documented range
    Deadlock,
    StepLimit, // stays the last one
};
constexpr std::size_t kRuleCount = static_cast<std::size_t>(Rule::StepLimit) + 1;

std::string_view ruleName(Rule rule);

struct Report {
    Rule rule = Rule::Argument;
    std::string call;   // the platform call that found it
    std::string object; // what it is about
    std::string detail; // one sentence
    std::string task;
    std::int64_t time = 0; // 100 ns
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

// Records the report, stops every task where it is, and ends the run: `Scheduler::run` throws `Stopped`. On a
// task it never returns. Outside of any task it throws `Stopped` itself.
[[noreturn]] void fail(Rule rule, std::string_view call, std::string object, std::string detail);

// Fails with IrqlTooHigh when the current level is above `limit`.
void requireIrql(std::string_view call, unsigned limit);

// The lock bookkeeping of the current task. `lock` is the lock's address, `name` what reports call it.
// `lockAcquiring` checks the order before the task may block; recursion is allowed for mutexes only.
enum class LockKind : std::uint8_t { Spin, Mutex };
void lockAcquiring(const void* lock, LockKind kind, std::string_view name, std::string_view call);
void lockAcquired(const void* lock, LockKind kind);
void lockReleased(const void* lock, std::string_view call);
void lockDestroyed(const void* lock, std::string_view call);
unsigned locksHeld();

// Gives a lock a name for reports; without one its address is shown.
void nameLock(const void* lock, std::string name);

// The lock's name, or the address of any other object, for reports.
std::string describeObject(const void* object);

} // namespace verifier
