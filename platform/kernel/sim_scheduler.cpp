// One task at a time. The running task owns everything here; it passes the baton to the next one and waits
// for its own. Nothing needs a lock, and every order of tasks follows from the seed.

#include "platform/kernel/core.h"
#include "platform/kernel/random.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <map>
#include <sched.h>
#include <unordered_map>

namespace kernel {

namespace {

// Keeps the run on one processor of the real machine: passing the baton to a thread that sleeps on another
// one takes ten times as long.
class PinnedThread {
  public:
    PinnedThread() {
        const int cpu = sched_getcpu();
        pinned_ = cpu >= 0 && sched_getaffinity(0, sizeof(old_), &old_) == 0;
        if (pinned_) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            pinned_ = sched_setaffinity(0, sizeof(one), &one) == 0;
        }
    }
    ~PinnedThread() {
        if (pinned_) {
            sched_setaffinity(0, sizeof(old_), &old_);
        }
    }
    PinnedThread(const PinnedThread&) = delete;
    PinnedThread& operator=(const PinnedThread&) = delete;

  private:
    cpu_set_t old_;
    bool pinned_ = false;
};

// The routine sees what the calling task did before.
Routine announced(Routine routine) {
    auto entry = std::make_shared<Routine>(std::move(routine));
    announceRelease(entry.get());
    return [entry] {
        announceAcquire(entry.get());
        (*entry)();
    };
}

class SimCore final : public Core {
  public:
    explicit SimCore(const SchedulerOptions& options);

    void run(const std::function<void()>& body) override;
    Time now() const override { return now_; }
    unsigned choose(unsigned count) override {
        return options_.strategy == Strategy::InOrder ? 0 : random_.below(count);
    }
    void point(Task& self, Point point) override;
    void raise(Task& self, unsigned level) override;
    void lower(Task& self, unsigned level) override;
    void lock() override {}
    void unlock() override {}
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

    void enqueueDpc(Routine routine, std::optional<unsigned> processor);
    bool mayRun(const Task& task) const;
    Task* pick(Task* self);
    Task* pickOrAdvance(Task* self);
    void handOver(Task& self, Task& next);
    void leaveProcessor(Task& self);
    void makeReady(Task& task);
    void passTime();
    [[noreturn]] void reportDeadlock();
    void dpcLoop(unsigned index);
    void endServiceTasks();

    struct Processor {
        Task* occupant = nullptr; // the task at DISPATCH_LEVEL here
        Task* dpcTask = nullptr;
        std::deque<Routine> dpcs;
    };

    struct Timer {
        Routine routine;      // or, for the end of a wait:
        Task* task = nullptr; // the task to wake
        std::optional<unsigned> processor;
    };

    enum class Phase { Idle, Body, Draining, Ending };

    Random random_;
    Time now_ = 0;
    std::uint64_t steps_ = 0;
    std::array<Processor, 4> processors_;
    std::vector<Task*> ready_; // could run, longest waiting first; the running task is not among them
    std::map<std::pair<Time, TimerId>, Timer> timers_; // by due time, then in the order started
    std::unordered_map<TimerId, Time> timerDue_;
    TimerId timersStarted_ = 0;

    // PCT: the steps at which the running task gets the lowest priority, next one last.
    std::vector<std::uint64_t> priorityChanges_;

    Phase phase_ = Phase::Idle;
    Task* hostTask_ = nullptr;
    Baton runner_; // the thread that called `run`; what tasks did before they slept is over for it
};

SimCore::SimCore(const SchedulerOptions& options) : Core(options), random_(options.seed) {
    if (options_.strategy == Strategy::Pct) {
        // How long the run will be is not known. Steps whose logarithms are equally distributed hit the
        // early and the late part of short and of long runs alike.
        for (unsigned i = 0; i < options_.pctDepth; i++) {
            const double exponent = static_cast<double>(random_.next() >> 11) * 0x1p-53 * 20.0;
            priorityChanges_.push_back(static_cast<std::uint64_t>(std::exp2(exponent)));
        }
        std::sort(priorityChanges_.rbegin(), priorityChanges_.rend());
    }
}

// A task at DISPATCH_LEVEL has its processor for itself; every other task needs one that no task occupies.
bool SimCore::mayRun(const Task& task) const {
    if (task.irql >= kDispatchLevel) {
        return true;
    }
    if (task.kind == TaskKind::Dpc) {
        return processors_[task.processor].occupant == nullptr;
    }
    for (unsigned i = 0; i < options_.processors; i++) {
        if (processors_[i].occupant == nullptr) {
            return true;
        }
    }
    return false;
}

// The task that runs next, `self` included when it can go on. Null when none can.
Task* SimCore::pick(Task* self) {
    switch (options_.strategy) {
    case Strategy::InOrder:
        for (Task* task : ready_) {
            if (mayRun(*task)) {
                return task;
            }
        }
        return self;
    case Strategy::Random: {
        unsigned candidates = self != nullptr ? 1 : 0;
        Task* only = self;
        for (Task* task : ready_) {
            if (mayRun(*task)) {
                candidates++;
                only = task;
            }
        }
        if (candidates <= 1) {
            return only;
        }
        unsigned chosen = random_.below(candidates);
        if (self != nullptr && chosen-- == 0) {
            return self;
        }
        for (Task* task : ready_) {
            if (mayRun(*task) && chosen-- == 0) {
                return task;
            }
        }
        return self;
    }
    case Strategy::Pct: {
        Task* best = self;
        for (Task* task : ready_) {
            if (mayRun(*task) && (best == nullptr || task->priority > best->priority)) {
                best = task;
            }
        }
        return best;
    }
    }
    return self;
}

void SimCore::point(Task& self, Point point) {
    if (++steps_ > options_.stepLimit) {
        verifier::fail(verifier::Rule::StepLimit, "schedulingPoint", self.name,
                       fmt::format("{} scheduling points; {}", options_.stepLimit, describeTasks()));
    }
    while (!priorityChanges_.empty() && steps_ >= priorityChanges_.back()) {
        priorityChanges_.pop_back();
        self.priority = priorityChanges_.size();
    }
    if (ready_.empty() || (options_.strategy == Strategy::InOrder && point != Point::Yield)) {
        return;
    }
    Task* next = pick(&self);
    if (next != &self) {
        PlatformCall call;
        makeReady(self);
        handOver(self, *next);
    }
}

void SimCore::makeReady(Task& task) {
    task.state = Task::State::Ready;
    ready_.push_back(&task);
}

// Gives the baton to `next` and sleeps until it comes back.
void SimCore::handOver(Task& self, Task& next) {
    std::erase(ready_, &next);
    next.state = Task::State::Running;
    if (&next == &self) {
        return;
    }
    accountSleepBegins(self);
    announceRelease(&runner_);
    next.baton.pass();
    self.baton.take();
    accountSleepEnds(self);
}

// The next task, after letting time pass if need be; null when the run is over.
Task* SimCore::pickOrAdvance(Task* self) {
    for (;;) {
        if (Task* next = pick(self)) {
            return next;
        }
        if (phase_ == Phase::Draining) {
            phase_ = Phase::Ending;
            endServiceTasks();
        } else if (phase_ == Phase::Ending) {
            return nullptr;
        } else if (!timers_.empty()) {
            passTime();
        } else {
            reportDeadlock();
        }
    }
}

// The running task cannot go on.
void SimCore::leaveProcessor(Task& self) {
    if (Task* next = pickOrAdvance(nullptr)) {
        handOver(self, *next);
        return;
    }
    accountSleepBegins(self);
    announceRelease(&runner_);
    runner_.pass();
    self.baton.take();
    accountSleepEnds(self);
}

// Nothing can run: the clock jumps to the next timer, and everything due at that moment happens.
void SimCore::passTime() {
    now_ = std::max(now_, timers_.begin()->first.first);
    if (now_ > options_.timeLimit) {
        verifier::fail(
            verifier::Rule::StepLimit, "clock", "",
            fmt::format("the run took {} s of virtual time; {}", now_ / base::kSecond, describeTasks()));
    }
    while (!timers_.empty() && timers_.begin()->first.first <= now_) {
        auto entry = timers_.extract(timers_.begin());
        timerDue_.erase(entry.key().second);
        Timer& timer = entry.mapped();
        if (timer.task != nullptr) {
            timer.task->deadlineTimer = 0;
            makeReady(*timer.task);
        } else {
            // The task that happens to let time pass is ordered with no timer.
            enqueueDpc(std::move(timer.routine), timer.processor);
        }
    }
}

void SimCore::reportDeadlock() {
    verifier::fail(verifier::Rule::Deadlock, "scheduler", "",
                   "no task can run and no timer is pending: " + describeTasks());
}

void SimCore::raise(Task& self, unsigned level) {
    point(self, Point::Irql);
    if (level >= kDispatchLevel && self.irql < kDispatchLevel) {
        // The task was running, so at least one processor has no occupant.
        std::array<unsigned, 4> free{};
        unsigned count = 0;
        for (unsigned i = 0; i < options_.processors; i++) {
            if (processors_[i].occupant == nullptr) {
                free[count++] = i;
            }
        }
        self.processor = free[count > 1 ? choose(count) : 0];
        processors_[self.processor].occupant = &self;
    }
    self.irql = level;
}

void SimCore::lower(Task& self, unsigned level) {
    if (level < kDispatchLevel && self.irql >= kDispatchLevel) {
        processors_[self.processor].occupant = nullptr;
    }
    self.irql = level;
    point(self, Point::Irql);
}

bool SimCore::block(Task& self, const WaitReason& reason, Time deadline) {
    if (deadline <= now_) {
        return false;
    }
    self.reason = reason;
    self.deadline = deadline;
    requireNoWaitCycle(self);
    self.woken = false;
    self.state = Task::State::Blocked;
    if (deadline != kForever) {
        self.deadlineTimer = ++timersStarted_;
        timers_[{deadline, self.deadlineTimer}].task = &self;
    }
    steps_++;
    leaveProcessor(self);
    return self.woken;
}

void SimCore::wake(Task& task) {
    if (task.state != Task::State::Blocked) {
        return;
    }
    if (task.deadlineTimer != 0) {
        timers_.erase({task.deadline, task.deadlineTimer});
        task.deadlineTimer = 0;
    }
    task.woken = true;
    makeReady(task);
}

// DPCs. A processor's DPC task runs while its queue has entries and no other task is at DISPATCH_LEVEL there.

void SimCore::queueDpc(Routine routine, std::optional<unsigned> processor) {
    enqueueDpc(announced(std::move(routine)), processor);
}

void SimCore::enqueueDpc(Routine routine, std::optional<unsigned> processor) {
    const Task* self = currentTaskOrNull();
    const unsigned index = processor.has_value() ? *processor
                           : options_.strategy == Strategy::InOrder && self != nullptr
                               ? self->processor
                               : choose(options_.processors);
    Processor& target = processors_[index];
    target.dpcs.push_back(std::move(routine));
    if (target.dpcTask == nullptr) {
        target.dpcTask = &spawn(
            fmt::format("DPC {}", index), TaskKind::Dpc, [this, index] { dpcLoop(index); }, true);
        target.dpcTask->processor = index;
    } else if (target.dpcTask->state == Task::State::Blocked) {
        wake(*target.dpcTask);
    }
}

void SimCore::dpcLoop(unsigned index) {
    Task& self = currentTask();
    Processor& processor = processors_[index];
    self.processor = index;
    for (;;) {
        processor.occupant = &self;
        self.irql = kDispatchLevel;
        while (!processor.dpcs.empty()) {
            const Routine routine = std::move(processor.dpcs.front());
            processor.dpcs.pop_front();
            routine();
            point(self, Point::Queue);
        }
        self.irql = kPassiveLevel;
        processor.occupant = nullptr;
        if (phase_ == Phase::Ending) {
            processor.dpcTask = nullptr;
            return;
        }
        self.idle = true;
        block(self, {"DPC queue", nullptr, nullptr}, kForever);
        self.idle = false;
    }
}

TimerId SimCore::startTimer(Time due, Routine routine, std::optional<unsigned> processor) {
    const TimerId id = ++timersStarted_;
    if (due <= now_) {
        queueDpc(std::move(routine), processor);
        return id;
    }
    timers_[{due, id}] = {announced(std::move(routine)), nullptr, processor};
    timerDue_[id] = due;
    return id;
}

bool SimCore::cancelTimer(TimerId timer) {
    auto due = timerDue_.find(timer);
    if (due == timerDue_.end()) {
        return false;
    }
    timers_.erase({due->second, timer});
    timerDue_.erase(due);
    return true;
}

// The life of a task.

void SimCore::taskLaunched(Task& task) {
    task.priority = (random_.next() >> 1) | (std::uint64_t{1} << 62); // above every changed priority
    makeReady(task);
}

void SimCore::taskBegins(Task& task) {
    task.baton.take();
}

void SimCore::taskEnds(Task& task) {
    if (&task == hostTask_) {
        phase_ = Phase::Draining;
    }
    if (Task* next = pickOrAdvance(nullptr)) {
        std::erase(ready_, next);
        next->state = Task::State::Running;
        next->baton.pass();
    } else {
        runner_.pass();
    }
}

void SimCore::endServiceTasks() {
    dismissWorkers();
    for (Processor& processor : processors_) {
        if (processor.dpcTask != nullptr) {
            wake(*processor.dpcTask);
        }
    }
}

void SimCore::run(const std::function<void()>& body) {
    if (stoppedBecause_) {
        throw verifier::Stopped(*stoppedBecause_);
    }
    bodyFailure_ = nullptr;
    acceptWorkers();
    phase_ = Phase::Body;
    PinnedThread pinned;
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
    Task* first = pickOrAdvance(nullptr);
    std::erase(ready_, first);
    first->state = Task::State::Running;
    first->baton.pass();
    runner_.take();
    announceAcquire(&runner_);
    phase_ = Phase::Idle;
    if (stoppedBecause_) {
        throw verifier::Stopped(*stoppedBecause_);
    }
    reap();
    if (bodyFailure_) {
        std::rethrow_exception(bodyFailure_);
    }
}

void SimCore::stop(const verifier::Report& report) {
    Task& self = currentTask();
    stoppedBecause_ = report;
    announceRelease(&runner_);
    runner_.pass();
    for (;;) {
        self.baton.take();
    }
}

} // namespace

std::unique_ptr<Core> makeSimCore(const SchedulerOptions& options) {
    return std::make_unique<SimCore>(options);
}

} // namespace kernel
