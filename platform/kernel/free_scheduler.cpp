// Real threads against the real clock. All records of the kernel layer are guarded by one lock; a level is a
// property of the task, because nothing keeps a real thread on a processor. DPCs run on one thread for each
// processor, so that routines of one processor never overlap.

#include "platform/kernel/core.h"
#include "platform/kernel/sanitizer.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fmt/format.h>
#include <map>
#include <sys/prctl.h>
#include <thread>
#include <unordered_map>

namespace kernel {

namespace {

// How long the end of a run waits for tasks that still have something to do, and a stop for tasks to notice.
constexpr Time kGrace = 10 * base::kSecond;

timespec relativeTime(Time duration) {
    const Time positive = std::max<Time>(duration, 0);
    return {positive / base::kSecond, (positive % base::kSecond) * 100};
}

class FreeCore final : public Core {
  public:
    explicit FreeCore(const SchedulerOptions& options)
        : Core(options), start_(std::chrono::steady_clock::now()) {}

    void run(const std::function<void()>& body) override;
    Time now() const override {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start_)
                   .count() /
               100;
    }
    unsigned choose(unsigned) override { return 0; }
    void point(Task& self, Point) override {
        if (isStopped()) {
            park(self);
        }
    }
    void raise(Task& self, unsigned level) override {
        self.irql = level;
        point(self, Point::Irql);
    }
    void lower(Task& self, unsigned level) override {
        self.irql = level;
        point(self, Point::Irql);
    }
    void lock() override;
    void unlock() override { kernelLock_.unlock(); }
    bool block(Task& self, const WaitReason& reason, Time deadline) override;
    void wake(Task& task) override;
    void queueDpc(Routine routine, std::optional<unsigned> processor) override;
    TimerId startTimer(Time due, Routine routine, std::optional<unsigned> processor) override;
    bool cancelTimer(TimerId timer) override;
    [[noreturn]] void stop(const verifier::Report& report) override;

  private:
    void taskLaunched(Task& task) override;
    void taskBegins(Task& task) override;
    void taskEnds(Task& task) override;

    bool isStopped() const { return __atomic_load_n(&stopped_, __ATOMIC_ACQUIRE); }
    [[noreturn]] void park(Task& self);
    [[noreturn]] void sleepForGood(Task& self);
    void becameInactive() {
        announceRelease(&runner_);
        __atomic_fetch_sub(&active_, 1, __ATOMIC_ACQ_REL);
        if (isStopped() || __atomic_load_n(&hostEnded_, __ATOMIC_ACQUIRE)) {
            runner_.pass();
        }
    }
    void dpcLoop(unsigned index);
    void timerLoop();
    void finish();
    [[noreturn]] void leaveStopped();
    bool waitForQuiet(Time deadline, bool workersToo);

    struct Processor {
        Task* dpcTask = nullptr;
        std::deque<Routine> dpcs;
    };

    struct Timer {
        Routine routine;
        std::optional<unsigned> processor;
    };

    const std::chrono::steady_clock::time_point start_;
    FutexLock kernelLock_;

    // Guarded by the kernel lock.
    std::array<Processor, 4> processors_;
    unsigned nextProcessor_ = 0;
    std::map<std::pair<Time, TimerId>, Timer> timers_;
    std::unordered_map<TimerId, Time> timerDue_;
    TimerId timersStarted_ = 0;
    bool timerThreadRuns_ = false;
    bool ending_ = false;

    std::thread timerThread_; // used by the running task that starts it and by the runner
    Baton timerKick_;
    Baton runner_;             // wakes the thread that called `run`
    std::uint32_t active_ = 0; // atomic: tasks that are neither asleep nor parked
    bool stopped_ = false;     // atomic
    bool hostEnded_ = false;   // atomic
    Task* hostTask_ = nullptr;
};

void FreeCore::lock() {
    kernelLock_.lock();
    Task* self = currentTaskOrNull();
    if (self != nullptr && isStopped()) {
        kernelLock_.unlock();
        park(*self);
    }
}

void FreeCore::park(Task& self) {
    becameInactive();
    sleepForGood(self);
}

void FreeCore::sleepForGood(Task& self) {
    for (;;) {
        self.baton.take();
    }
}

bool FreeCore::block(Task& self, const WaitReason& reason, Time deadline) {
    if (deadline <= now()) {
        return false;
    }
    self.reason = reason;
    self.deadline = deadline;
    requireNoWaitCycle(self);
    self.woken = false;
    self.state = Task::State::Blocked;
    accountSleepBegins(self);
    // The waking task counts this one as active again, so that the count never misses a task that has
    // something to do; only a task that wakes by its deadline counts itself.
    becameInactive();
    while (!self.woken) {
        const Time remaining = deadline == kForever ? kForever : deadline - now();
        if (remaining <= 0) {
            __atomic_fetch_add(&active_, 1, __ATOMIC_ACQ_REL);
            break;
        }
        kernelLock_.unlock();
        const timespec relative = relativeTime(remaining);
        if (!self.baton.tryTake()) {
            self.baton.waitOnce(deadline == kForever ? nullptr : &relative);
        }
        kernelLock_.lock();
        if (isStopped()) {
            const bool counted = self.woken;
            kernelLock_.unlock();
            if (counted) {
                park(self);
            }
            sleepForGood(self);
        }
    }
    accountSleepEnds(self);
    self.state = Task::State::Running;
    (void)self.baton.tryTake();
    return self.woken;
}

void FreeCore::wake(Task& task) {
    if (task.state == Task::State::Blocked && !task.woken) {
        task.woken = true;
        __atomic_fetch_add(&active_, 1, __ATOMIC_ACQ_REL);
        task.baton.pass();
    }
}

// DPCs and timers.

void FreeCore::queueDpc(Routine routine, std::optional<unsigned> processor) {
    auto entry = std::make_shared<Routine>(std::move(routine));
    announceRelease(entry.get());
    KernelLockIfFree guard;
    const unsigned index = processor.has_value() ? *processor : nextProcessor_++ % options_.processors;
    Processor& target = processors_[index];
    target.dpcs.push_back([entry] {
        announceAcquire(entry.get());
        (*entry)();
    });
    if (target.dpcTask == nullptr) {
        target.dpcTask = &spawn(
            fmt::format("DPC {}", index), TaskKind::Dpc, [this, index] { dpcLoop(index); }, true);
    } else {
        wake(*target.dpcTask);
    }
}

void FreeCore::dpcLoop(unsigned index) {
    Task& self = currentTask();
    self.processor = index;
    Processor& processor = processors_[index];
    for (;;) {
        Routine routine;
        {
            KernelGuard guard;
            self.idle = true;
            while (processor.dpcs.empty() && !ending_) {
                block(self, {"DPC queue", nullptr, nullptr}, kForever);
            }
            self.idle = false;
            if (processor.dpcs.empty()) {
                processor.dpcTask = nullptr;
                return;
            }
            routine = std::move(processor.dpcs.front());
            processor.dpcs.pop_front();
        }
        self.irql = kDispatchLevel;
        routine();
        self.irql = kPassiveLevel;
    }
}

TimerId FreeCore::startTimer(Time due, Routine routine, std::optional<unsigned> processor) {
    auto entry = std::make_shared<Routine>(std::move(routine));
    announceRelease(entry.get());
    KernelLockIfFree guard;
    const TimerId id = ++timersStarted_;
    timers_[{due, id}] = {[entry] {
                              announceAcquire(entry.get());
                              (*entry)();
                          },
                          processor};
    timerDue_[id] = due;
    if (!timerThreadRuns_) {
        timerThreadRuns_ = true;
        timerThread_ = std::thread([this] { timerLoop(); });
    } else if (timers_.begin()->first.second == id) {
        timerKick_.pass();
    }
    return id;
}

bool FreeCore::cancelTimer(TimerId timer) {
    KernelLockIfFree guard;
    auto due = timerDue_.find(timer);
    if (due == timerDue_.end()) {
        return false;
    }
    timers_.erase({due->second, timer});
    timerDue_.erase(due);
    return true;
}

void FreeCore::timerLoop() {
    // The kernel would otherwise gather wake-ups within 50 us, more than a transfer's latency.
    prctl(PR_SET_TIMERSLACK, 1);
    sanitizer::ignoreBegin();
    for (;;) {
        Time wait = kForever;
        kernelLock_.lock();
        while (!timers_.empty() && timers_.begin()->first.first <= now()) {
            auto entry = timers_.extract(timers_.begin());
            timerDue_.erase(entry.key().second);
            kernelLock_.unlock();
            queueDpc(std::move(entry.mapped().routine), entry.mapped().processor);
            kernelLock_.lock();
        }
        if (!timers_.empty()) {
            wait = timers_.begin()->first.first - now();
        }
        const bool end = ending_ || isStopped();
        kernelLock_.unlock();
        if (end) {
            break;
        }
        const timespec relative = relativeTime(wait);
        if (wait > 0 && !timerKick_.tryTake()) {
            timerKick_.waitOnce(wait == kForever ? nullptr : &relative);
        }
    }
    sanitizer::ignoreEnd();
}

// The life of a task and of a run.

void FreeCore::taskLaunched(Task& task) {
    task.state = Task::State::Running;
    __atomic_fetch_add(&active_, 1, __ATOMIC_ACQ_REL);
}

void FreeCore::taskBegins(Task& task) {
    point(task, Point::Yield);
}

void FreeCore::taskEnds(Task& task) {
    if (&task == hostTask_) {
        __atomic_store_n(&hostEnded_, true, __ATOMIC_RELEASE);
    }
    becameInactive();
}

void FreeCore::run(const std::function<void()>& body) {
    if (isStopped()) {
        leaveStopped();
    }
    bodyFailure_ = nullptr;
    {
        KernelGuard guard;
        acceptWorkers();
        ending_ = false;
        __atomic_store_n(&hostEnded_, false, __ATOMIC_RELEASE);
        hostTask_ = &spawn(
            "host", TaskKind::Host,
            [this, &body] {
                try {
                    body();
                } catch (...) {
                    bodyFailure_ = std::current_exception();
                }
            },
            true);
    }
    while (!__atomic_load_n(&hostEnded_, __ATOMIC_ACQUIRE) && !isStopped()) {
        runner_.take();
    }
    finish();
    if (bodyFailure_) {
        std::rethrow_exception(bodyFailure_);
    }
}

// Waits until no task has anything to do.
bool FreeCore::waitForQuiet(Time deadline, bool workersToo) {
    for (;;) {
        {
            KernelGuard guard;
            if (__atomic_load_n(&active_, __ATOMIC_ACQUIRE) == 0 && !(workersToo && workOutstanding())) {
                return true;
            }
        }
        if (now() >= deadline) {
            return false;
        }
        const timespec slice = relativeTime(base::kMillisecond);
        if (!runner_.tryTake()) {
            runner_.waitOnce(&slice);
        }
    }
}

void FreeCore::finish() {
    if (!isStopped()) {
        waitForQuiet(now() + kGrace, true);
    }
    if (isStopped()) {
        leaveStopped();
    }
    {
        KernelGuard guard;
        ending_ = true;
        dismissWorkers();
        for (Processor& processor : processors_) {
            if (processor.dpcTask != nullptr) {
                wake(*processor.dpcTask);
            }
        }
    }
    if (timerThread_.joinable()) {
        timerKick_.pass();
        timerThread_.join();
        timerThreadRuns_ = false;
    }
    waitForQuiet(now() + kGrace, false);
    if (isStopped()) {
        leaveStopped();
    }
    announceAcquire(&runner_);
    reap();
}

void FreeCore::leaveStopped() {
    if (timerThread_.joinable()) {
        timerKick_.pass();
        timerThread_.join();
    }
    // The caller is about to destroy what tasks in the middle of a computation may still use.
    if (!waitForQuiet(now() + kGrace, false)) {
        std::fprintf(stderr, "%s\nA task did not stop within 10 s; giving up.\n",
                     stoppedBecause_->text().c_str());
        std::abort();
    }
    announceAcquire(&runner_);
    throw verifier::Stopped(*stoppedBecause_);
}

void FreeCore::stop(const verifier::Report& report) {
    Task& self = currentTask();
    if (!kernelLockHeld()) {
        kernelLock_.lock();
    }
    if (!stoppedBecause_) {
        stoppedBecause_ = report;
        __atomic_store_n(&stopped_, true, __ATOMIC_RELEASE);
    }
    kernelLock_.unlock();
    park(self);
}

} // namespace

std::unique_ptr<Core> makeFreeCore(const SchedulerOptions& options) {
    return std::make_unique<FreeCore>(options);
}

} // namespace kernel
