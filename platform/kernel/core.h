// What the two schedulers have in common, and what each of them does in its own way. Private to the kernel
// layer.
#pragma once

#include "platform/kernel/kernel_lock.h"
#include "platform/kernel/ordering.h"
#include "platform/kernel/platform_call.h"
#include "platform/kernel/task.h"
#include "platform/verifier/verifier.h"

#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

namespace kernel {

class Core : public KernelLock, public verifier::Run {
  public:
    explicit Core(const SchedulerOptions& options);
    virtual ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    const SchedulerOptions& options() const { return options_; }

    // What differs. `self` is the calling task.
    virtual void run(const std::function<void()>& body) = 0;
    virtual unsigned choose(unsigned count) = 0;
    virtual void point(Task& self, Point point) = 0;
    virtual void raise(Task& self, unsigned level) = 0;
    virtual void lower(Task& self, unsigned level) = 0;
    virtual bool block(Task& self, const WaitReason& reason, Time deadline) = 0;
    virtual void wake(Task& task) = 0;
    virtual void queueDpc(Routine routine, std::optional<unsigned> processor) = 0;
    virtual TimerId startTimer(Time due, Routine routine, std::optional<unsigned> processor) = 0;
    virtual bool cancelTimer(TimerId timer) = 0;

    // What is shared.
    const std::string* taskName() const override;
    unsigned irql() const override { return currentIrql(); }
    std::uint64_t seed() const override { return options_.seed; }
    Task& spawn(std::string name, TaskKind kind, std::function<void()> body, bool detached);
    void join(Task& task);
    bool hasTasks() const { return !tasks_.empty(); }
    void abandon(); // the threads of the tasks that are left are never joined
    void queueWork(std::string name, std::function<void()> body);
    void waitForWorkers();
    bool waitUntil(const void* channel, const WaitReason& reason, Time deadline,
                   const std::function<bool()>& done);
    void wakeChannel(const void* channel);

    // Every task that has not ended, in order of creation.
    const std::vector<Task*>& tasks() const { return tasks_; }
    std::vector<DriverTime> driverTimes();

    // "name: waits in CALL for OBJECT held by OWNER", for every task that does something.
    std::string describeTasks() const;

  protected:
    struct ChannelWaiter {
        Task* task;
        bool signaled;
    };

    void launch(Task& task);                 // starts the task's thread,
    void runTask(Task& task);                // which does this
    virtual void taskBegins(Task& task) = 0; // returns when the task may run
    virtual void taskEnds(Task& task) = 0;   // the last thing a task does; the kernel lock is not held
    virtual void taskLaunched(Task& task) = 0;

    // Follows the owners of what tasks wait for; reports a cycle through `self`.
    void requireNoWaitCycle(Task& self);

    // Joins the threads of detached tasks that have ended.
    void reap();

    // Ends the idle workers now, and the busy ones when their work is done. Kernel lock held.
    void dismissWorkers();
    void acceptWorkers() { dismissing_ = false; }
    bool workOutstanding() const { return !outstandingWork_.empty(); }

    SchedulerOptions options_;
    std::exception_ptr bodyFailure_;                 // what the host task's body threw
    std::optional<verifier::Report> stoppedBecause_; // guarded by the kernel lock; written once

  private:
    void workerLoop(Task& self);
    std::string describeWait(const Task& task) const;
    void accountEnded(const Task& task);

    // Guarded by the kernel lock.
    std::vector<Task*> tasks_;
    std::vector<Task*> ended_;
    std::vector<DriverTime> endedTimes_; // one entry for each name and kind
    std::unordered_map<const void*, std::vector<ChannelWaiter*>> channels_;
    std::vector<Task*> idleWorkers_;
    std::set<std::uint64_t> outstandingWork_;
    std::uint64_t workQueued_ = 0;
    unsigned workersCreated_ = 0;
    bool dismissing_ = false;
};

std::unique_ptr<Core> makeSimCore(const SchedulerOptions& options);
std::unique_ptr<Core> makeFreeCore(const SchedulerOptions& options);

// The scheduler of the current machine, or null between machines.
Core* currentCore();
void setCurrentCore(Core* core);

// The same for a caller that needs one. Throws std::logic_error when there is none.
Core& requireCore();

// The owner of what `task` waits for changed while it waits. Kernel lock held.
void changeWaitOwner(Task& task, const Task* owner);

// Starts a task that is not joined; its record is freed some time after it has ended.
Task& spawnDetached(std::string name, TaskKind kind, std::function<void()> body);

} // namespace kernel
