// A task's record, and which task the calling thread is.
#pragma once

#include "platform/kernel/futex.h"
#include "platform/kernel/scheduling.h"
#include "platform/verifier/lock_order.h"

#include <cstdint>
#include <functional>
#include <pthread.h>
#include <string>
#include <vector>

struct _KTHREAD;

namespace kernel {

// Whose code a task executes.
enum class Domain : std::uint8_t { Host, Driver, Platform };

// Where the task's processor time went. Written by the task alone.
struct Account {
    Domain domain = Domain::Host;
    unsigned depth = 0;          // nested entries into the driver
    bool byTicks = false;        // how the outermost entry under way is measured
    std::uint64_t enteredAt = 0; // ticks, or the thread's processor time in nanoseconds, at that entry
    std::uint64_t sleptAtEntry = 0;
    std::uint64_t platformTicks = 0; // time stamp ticks in the platform since then, without sleep
    std::uint64_t driver = 0;        // nanoseconds in the driver, entries that ended
    std::uint64_t leftAt = 0;        // when the platform call under way began
    std::uint64_t sleptTicks = 0;    // asleep, since the task began
    std::uint64_t sleptWhenLeft = 0; // `sleptTicks` when the platform call under way began
    std::uint64_t sleepingSince = 0; // 0 while awake
    const char* callback = "";       // the driver's callback under way
};

class Task {
  public:
    enum class State : std::uint8_t { Ready, Running, Blocked, Ended };

    Task(std::string taskName, TaskKind taskKind, std::function<void()> taskBody)
        : name(std::move(taskName)), kind(taskKind), body(std::move(taskBody)) {}

    // Constant once the task runs.
    std::string name;
    TaskKind kind;
    std::function<void()> body;
    bool detached = false; // its thread is joined by the scheduler
    pthread_t thread{};

    // Guarded by the kernel lock.
    State state = State::Ready;
    WaitReason reason;
    Time deadline = kForever;
    bool woken = false;
    bool idle = false; // blocked because there is nothing to do: no part of a deadlock
    Task* joiner = nullptr;
    std::function<void()> work; // workers: the body to run next
    std::string workName;
    std::uint64_t workNumber = 0;
    _KTHREAD* threadObject = nullptr; // the driver's view of the task, once it has been asked for
    void (*endThreadObject)(Task& task) = nullptr; // called when the task ends; set with `threadObject`

    // Used by the scheduler that runs the task.
    Baton baton;
    std::uint64_t deadlineTimer = 0;
    std::uint64_t priority = 0;

    // Written by the task itself.
    unsigned irql = kPassiveLevel;
    unsigned processor = 0;
    std::vector<verifier::HeldLock> locks;
    bool systemWork = false; // see SystemWork
    Account account;
    std::uint64_t endedCpu = 0; // processor time of the whole thread, once it has ended
};

// The current task, or null on a thread that is none.
Task* currentTaskOrNull();
Task& currentTask();
void setCurrentTask(Task* task);

const std::string& taskName(const Task& task);
TaskKind taskKind(const Task& task);

// Processor time that the calling thread, or the task, has used, in nanoseconds of the real machine.
std::uint64_t threadCpuTime();
std::uint64_t taskCpuTime(const Task& task);

// The level of the processor that the current task runs on.
unsigned currentIrql();

} // namespace kernel
