// Tasks, virtual processors and time: one interface, two schedulers.
//
// `sim` runs one task at a time. At every scheduling point a seeded strategy picks who runs next, and time is
// virtual: it jumps to the next due timer when nothing can run. `free` runs the same tasks as ordinary
// threads against the real clock. A task is an OS thread in both.
//
// Everything in the kernel and framework layers that several tasks can touch is guarded by the one kernel
// lock
// (`KernelGuard`). Under `sim` it costs nothing; under `free` it is a lock that ThreadSanitizer does not see,
// so that it reports the driver's races and not only the platform's. The orders Windows guarantees (an event
// set before the wait that it ends, one spin lock holder before the next, ...) are announced one by one
// through `announceRelease` and `announceAcquire`.
#pragma once

#include "platform/base/clock.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kernel {

using base::Time;

enum class Mode : std::uint8_t { Sim, Free };

// How `sim` picks among the tasks that could run.
enum class Strategy : std::uint8_t {
    InOrder, // keeps the running task until it blocks, then the longest waiting one
    Random,  // a fair choice at every point
    Pct,     // probabilistic concurrency testing: random priorities, changed at `pctDepth` random points
};

struct SchedulerOptions {
    Mode mode = Mode::Sim;
    std::uint64_t seed = 1;
    Strategy strategy = Strategy::Random;
    unsigned pctDepth = 3;
    unsigned processors = 2;                   // 1 to 4
    std::uint64_t stepLimit = 200'000'000;     // scheduling points before a run is reported as endless
    Time timeLimit = 4 * 3600 * base::kSecond; // virtual time before a run is reported as endless; `sim` only
};

// Where a task can lose the processor.
enum class Point : std::uint8_t { Lock, Event, Wait, Queue, Transfer, Interlocked, Irql, Yield };

enum class TaskKind : std::uint8_t {
    Host,   // the test or tool that owns the machine, and the client's threads
    System, // threads the driver created
    Worker, // work items, passive timers, PnP notifications
    Dpc,    // one per processor
};

class Task;

// A routine that a DPC runs at DISPATCH_LEVEL.
using Routine = std::function<void()>;

// Starts a task at PASSIVE_LEVEL. Under `sim` it first runs at some later scheduling point.
Task& spawn(std::string name, TaskKind kind, std::function<void()> body);

// Waits at PASSIVE_LEVEL until `task` has returned, then frees it. Each spawned task is joined exactly once.
void join(Task& task);

Task& currentTask();
const std::string& taskName(const Task& task);
TaskKind taskKind(const Task& task);

// Processor time that the task has used, in nanoseconds of the real machine.
std::uint64_t taskCpuTime(const Task& task);
// The same of the calling thread, which need not be a task.
std::uint64_t threadCpuTime();

// Lets another task run, or an interrupt in, as the strategy decides. The kernel lock must not be held.
void schedulingPoint(Point point);

Time now();
Mode mode();
std::uint64_t seed();
unsigned processorCount();

// A choice that belongs to the explored schedule: 0 to `count` - 1, reproduced by the seed.
unsigned choose(unsigned count);

// Interrupt request levels, by the kernel's numbers.
constexpr unsigned kPassiveLevel = 0;
constexpr unsigned kApcLevel = 1;
constexpr unsigned kDispatchLevel = 2;

// The level of the processor that the current task runs on. Raising to DISPATCH_LEVEL keeps the task on its
// processor and DPCs off it until the level drops; both are scheduling points.
unsigned currentIrql();
unsigned currentProcessor();
unsigned raiseIrql(unsigned level); // returns the old level
void lowerIrql(unsigned level);

// Queues `routine` for DISPATCH_LEVEL on a processor of the scheduler's choice, or on the given one. Routines
// of one processor run in the order queued and one at a time. Callable at any level.
void queueDpc(Routine routine);
void queueDpc(Routine routine, unsigned processor);

// Runs `routine` as a DPC once `due` has come. `cancelTimer` returns true when the routine will not run any
// more.
using TimerId = std::uint64_t;
TimerId startTimer(Time due, Routine routine);
bool cancelTimer(TimerId timer);

// Runs `body` on one of the system's worker tasks at PASSIVE_LEVEL. Workers are created as needed, so that a
// blocked body never holds back another. `waitForWorkers` returns when all bodies queued so far have
// returned.
void queueWork(std::string name, std::function<void()> body);
void waitForWorkers();

// The kernel lock. Not recursive; held for a few instructions, never across a call out of the platform.
class KernelGuard {
  public:
    KernelGuard();
    ~KernelGuard();
    KernelGuard(const KernelGuard&) = delete;
    KernelGuard& operator=(const KernelGuard&) = delete;
};

// Blocks and wakes tasks on behalf of dispatcher objects. All three are called with the kernel lock held,
// which `block` gives up while the task sleeps and holds again when it returns.
struct WaitReason {
    std::string_view call;               // the kernel call that waits, for reports
    const void* object = nullptr;        // what is waited for
    const Task* owner = nullptr;         // who holds it, when somebody does
    std::span<void* const> objects = {}; // all that is waited for, when it is more than one object
};
constexpr Time kForever = INT64_MAX;
bool block(const WaitReason& reason, Time deadline); // false when the deadline came first
void wake(Task& task);                               // no effect on a task that is not blocked

// A wait by the platform itself or by host code: until `done` answers true, asked anew after every wake-up of
// `channel`. False when the deadline came first. PASSIVE_LEVEL.
bool waitUntil(const void* channel, const WaitReason& reason, Time deadline,
               const std::function<bool()>& done);
void wakeChannel(const void* channel);

// Tells ThreadSanitizer of an order that Windows guarantees. No effect in other builds.
void announceRelease(const void* object);
void announceAcquire(const void* object);

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
    // task included, stays where it was for the rest of the process, with what its stack holds, and none of
    // them ever runs again. Tasks that still wait when `body` has returned are left in the same way.
    void run(const std::function<void()>& body);

    base::Clock& clock();
    std::uint64_t steps() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace kernel
