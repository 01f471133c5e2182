// Tasks, virtual processors and time: one interface, two schedulers.
//
// `sim` runs one task at a time. At every scheduling point a seeded strategy picks the task that runs next,
// and time is virtual: it jumps to the next due timer when nothing can run. `free` runs the same tasks as
// ordinary threads against the real clock. A task is an OS thread in both.
//
// Everything in the kernel and framework layers that several tasks can touch is guarded by the one kernel
// lock
// (`KernelGuard`). Under `sim` it costs nothing; under `free` it is a lock that ThreadSanitizer does not see,
// so that it reports the driver's races and not only the platform's. The orders that Windows guarantees (an
// event set before the wait that it ends, one spin lock holder before the next, ...) are announced one by one
// through `announceRelease` and `announceAcquire`.
#pragma once

#include "platform/base/clock.h"
#include "platform/kernel/kernel_lock.h"
#include "platform/kernel/ordering.h"
#include "platform/kernel/scheduling.h"
#include "platform/kernel/task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kernel {

// Starts a task at PASSIVE_LEVEL. Under `sim` it first runs at some later scheduling point.
Task& spawn(std::string name, TaskKind kind, std::function<void()> body);

// Waits at PASSIVE_LEVEL until `task` has returned, then frees it. Each spawned task is joined exactly once.
void join(Task& task);

// Lets another task run, or an interrupt in, as the strategy decides. The kernel lock must not be held.
void schedulingPoint(Point point);

Time now();
Mode mode();

// Windows looks at time-outs, delays and timers only when its clock ticks (every 15.625 ms, or 1 ms when a
// program asked for it). This is when it notices what is due at `moment`: at the first tick that is not
// earlier.
Time atTick(Time moment);

// A choice that belongs to the explored schedule: 0 to `count` - 1, reproduced by the seed.
unsigned choose(unsigned count);

// Raising to DISPATCH_LEVEL keeps the task on its processor and DPCs off it until the level drops; both are
// scheduling points.
unsigned raiseIrql(unsigned level); // returns the old level
void lowerIrql(unsigned level);

// Queues `routine` for DISPATCH_LEVEL on a processor of the scheduler's choice, or on the given one. Routines
// of one processor run in the order queued and one at a time. Callable at any level.
void queueDpc(Routine routine);
void queueDpc(Routine routine, unsigned processor);

// Runs `routine` as a DPC once `due` has come. `cancelTimer` returns true when the routine will not run any
// more.
TimerId startTimer(Time due, Routine routine);
bool cancelTimer(TimerId timer);

// Runs `body` on one of the system's worker tasks at PASSIVE_LEVEL. Workers are created as needed, so that a
// blocked body never holds back another. `waitForWorkers` returns when all bodies queued so far have
// returned.
void queueWork(std::string name, std::function<void()> body);
void waitForWorkers();

// Blocks and wakes tasks on behalf of dispatcher objects. All three are called with the kernel lock held,
// which `block` gives up while the task sleeps and holds again when it returns.
bool block(const WaitReason& reason, Time deadline); // false when the deadline came first
void wake(Task& task);                               // no effect on a task that is not blocked

// A wait by the platform itself or by host code: until `done` returns true; it is called again after every
// wake-up of `channel`. False when the deadline came first. PASSIVE_LEVEL.
bool waitUntil(const void* channel, const WaitReason& reason, Time deadline,
               const std::function<bool()>& done);
void wakeChannel(const void* channel);

// The scheduler of one machine: created before its first task, destroyed after its last. The machine's state
// begins and ends with it.
class Scheduler {
  public:
    explicit Scheduler(const SchedulerOptions& options);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    // Runs `body` as the machine's host task and returns when it has returned. Rethrows what `body` throws;
    // throws `verifier::Stopped` when a rule was broken, a deadlock was found or the step limit reached.
    //
    // The host task is a thread of its own. A stopped run therefore unwinds nothing: every task, the host
    // task included, keeps its stack until the process ends and never runs again. Tasks that still wait when
    // `body` has returned are left in the same way.
    void run(const std::function<void()>& body);

    base::Clock& clock();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kernel
