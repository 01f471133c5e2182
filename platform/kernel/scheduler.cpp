// The one interface in front of the two schedulers.

#include "platform/kernel/scheduler.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/core.h"
#include "platform/kernel/sanitizer.h"
#include "platform/verifier/verifier.h"

#include <stdexcept>

namespace kernel {

namespace {

// One machine at a time. Written by the thread that creates and destroys the Scheduler, while no task runs.
Core* machineCore = nullptr;

thread_local Task* threadTask __attribute__((tls_model("initial-exec"))) = nullptr;

thread_local bool threadHoldsKernelLock __attribute__((tls_model("initial-exec"))) = false;

Core& core() {
    if (machineCore == nullptr) {
        throw std::logic_error("no machine is running");
    }
    return *machineCore;
}

} // namespace

Core* currentCore() {
    return machineCore;
}

Task* currentTaskOrNull() {
    return threadTask;
}

bool kernelLockHeld() {
    return threadHoldsKernelLock;
}

void setCurrentTask(Task* task) {
    threadTask = task;
}

Task& currentTask() {
    if (threadTask == nullptr) {
        throw std::logic_error("this thread is no task of the machine");
    }
    return *threadTask;
}

const std::string& taskName(const Task& task) {
    return task.name;
}
TaskKind taskKind(const Task& task) {
    return task.kind;
}

std::uint64_t taskCpuTime(const Task& task) {
    if (task.state == Task::State::Ended) {
        return task.endedCpu;
    }
    clockid_t clock = 0;
    timespec time{};
    if (pthread_getcpuclockid(task.thread, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

Task& spawn(std::string name, TaskKind kind, std::function<void()> body) {
    PlatformCall call;
    Task& task = core().spawn(std::move(name), kind, std::move(body), false);
    schedulingPoint(Point::Queue);
    return task;
}

Task& spawnDetached(std::string name, TaskKind kind, std::function<void()> body) {
    PlatformCall call;
    return core().spawn(std::move(name), kind, std::move(body), true);
}

void join(Task& task) {
    PlatformCall call;
    verifier::requireIrql("join", kApcLevel);
    core().join(task);
}

void schedulingPoint(Point point) {
    Task* self = threadTask;
    if (self != nullptr && !threadHoldsKernelLock) {
        machineCore->point(*self, point);
    }
}

Time now() {
    return machineCore != nullptr ? machineCore->now() : 0;
}
Mode mode() {
    return machineCore != nullptr ? machineCore->options().mode : Mode::Sim;
}
std::uint64_t seed() {
    return machineCore != nullptr ? machineCore->options().seed : 0;
}
unsigned processorCount() {
    return machineCore != nullptr ? machineCore->options().processors : 1;
}
unsigned choose(unsigned count) {
    return count > 1 && machineCore != nullptr ? machineCore->choose(count) : 0;
}

unsigned currentIrql() {
    return threadTask != nullptr ? threadTask->irql : kPassiveLevel;
}
unsigned currentProcessor() {
    return threadTask != nullptr ? threadTask->processor : 0;
}

unsigned raiseIrql(unsigned level) {
    Task* self = threadTask;
    if (self == nullptr) {
        return kPassiveLevel;
    }
    const unsigned old = self->irql;
    if (level < old) {
        verifier::fail(verifier::Rule::Argument, "raiseIrql", std::to_string(level),
                       "the level is below the current one");
    }
    if (level > old) {
        machineCore->raise(*self, level);
    }
    return old;
}

void lowerIrql(unsigned level) {
    Task* self = threadTask;
    if (self == nullptr) {
        return;
    }
    if (level > self->irql) {
        verifier::fail(verifier::Rule::Argument, "lowerIrql", std::to_string(level),
                       "the level is above the current one");
    }
    if (level < self->irql) {
        machineCore->lower(*self, level);
    }
}

void queueDpc(Routine routine) {
    PlatformCall call;
    core().queueDpc(std::move(routine), std::nullopt);
    schedulingPoint(Point::Queue);
}

void queueDpc(Routine routine, unsigned processor) {
    PlatformCall call;
    core().queueDpc(std::move(routine), processor);
    schedulingPoint(Point::Queue);
}

TimerId startTimer(Time due, Routine routine) {
    PlatformCall call;
    return core().startTimer(due, std::move(routine), std::nullopt);
}

bool cancelTimer(TimerId timer) {
    PlatformCall call;
    return core().cancelTimer(timer);
}

void queueWork(std::string name, std::function<void()> body) {
    PlatformCall call;
    core().queueWork(std::move(name), std::move(body));
    schedulingPoint(Point::Queue);
}

void waitForWorkers() {
    PlatformCall call;
    core().waitForWorkers();
}

KernelGuard::KernelGuard() {
    if (machineCore != nullptr) {
        machineCore->lock();
    }
    threadHoldsKernelLock = true;
}

KernelGuard::~KernelGuard() {
    threadHoldsKernelLock = false;
    if (machineCore != nullptr) {
        machineCore->unlock();
    }
}

KernelLockIfFree::KernelLockIfFree() : taken_(!threadHoldsKernelLock) {
    if (taken_) {
        if (machineCore != nullptr) {
            machineCore->lock();
        }
        threadHoldsKernelLock = true;
    }
}

KernelLockIfFree::~KernelLockIfFree() {
    if (taken_) {
        threadHoldsKernelLock = false;
        if (machineCore != nullptr) {
            machineCore->unlock();
        }
    }
}

bool block(const WaitReason& reason, Time deadline) {
    return core().block(currentTask(), reason, deadline);
}

void wake(Task& task) {
    core().wake(task);
}

void changeWaitOwner(Task& task, const Task* owner) {
    task.reason.owner = owner;
}

bool waitUntil(const void* channel, const WaitReason& reason, Time deadline,
               const std::function<bool()>& done) {
    PlatformCall call;
    verifier::requireIrql(reason.call, kApcLevel);
    schedulingPoint(Point::Wait);
    return core().waitUntil(channel, reason, deadline, done);
}

void wakeChannel(const void* channel) {
    PlatformCall call;
    core().wakeChannel(channel);
    schedulingPoint(Point::Event);
}

// Inside the platform ThreadSanitizer is told to ignore what it sees, orders included; an announcement is
// what it is to see.

void announceRelease(const void* object) {
    if (__tsan_release == nullptr) {
        return;
    }
    const bool ignoring = threadTask != nullptr && threadTask->account.domain == Domain::Platform;
    if (ignoring) {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    }
    sanitizer::release(object);
    if (ignoring) {
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
}

void announceAcquire(const void* object) {
    if (__tsan_acquire == nullptr) {
        return;
    }
    const bool ignoring = threadTask != nullptr && threadTask->account.domain == Domain::Platform;
    if (ignoring) {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    }
    sanitizer::acquire(object);
    if (ignoring) {
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
}

// The machine's scheduler.

namespace {

// What stands on the device's side of the wire promises its actions in the order they were scheduled: they
// all run on the first processor.
class MachineClock final : public base::Clock {
  public:
    Time now() const override { return kernel::now(); }
    void schedule(Time due, std::function<void()> action) override {
        core().startTimer(due, std::move(action), 0);
    }
};

} // namespace

struct Scheduler::State {
    base::MachineState machine;
    std::unique_ptr<Core> core;
    MachineClock clock;
};

Scheduler::Scheduler(const SchedulerOptions& options) : state_(std::make_unique<State>()) {
    if (options.processors < 1 || options.processors > 4) {
        throw std::invalid_argument("a machine has 1 to 4 processors");
    }
    state_->core = options.mode == Mode::Sim ? makeSimCore(options) : makeFreeCore(options);
    machineCore = state_->core.get();
}

Scheduler::~Scheduler() {
    machineCore = nullptr;
    if (state_->core->hasTasks()) {
        // Their threads sleep on what the core owns, for as long as the process lives.
        state_->core.release()->abandon();
    }
}

void Scheduler::run(const std::function<void()>& body) {
    state_->core->run(body);
}
base::Clock& Scheduler::clock() {
    return state_->clock;
}
std::uint64_t Scheduler::steps() const {
    return state_->core->steps();
}

} // namespace kernel

extern "C" void KernelSchedulingPoint() {
    kernel::schedulingPoint(kernel::Point::Interlocked);
}
