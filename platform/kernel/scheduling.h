// The words of scheduling: what tasks, processors and waits are made of.
#pragma once

#include "platform/base/clock.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

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
    Time tick = 0;                             // the clock's; 0 for exact time. See `atTick`.
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

using TimerId = std::uint64_t;

// Interrupt request levels, by the kernel's numbers.
constexpr unsigned kPassiveLevel = 0;
constexpr unsigned kApcLevel = 1;
constexpr unsigned kDispatchLevel = 2;

struct WaitReason {
    std::string_view call;               // the kernel call that waits, for reports
    const void* object = nullptr;        // what is waited for
    const Task* owner = nullptr;         // the task that holds it, if there is one
    std::span<void* const> objects = {}; // all that is waited for, when it is more than one object
};
constexpr Time kForever = INT64_MAX;

} // namespace kernel
