// The one interface in front of the two schedulers.

#include "platform/kernel/scheduler.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/core.h"
#include "platform/verifier/verifier.h"

#include <stdexcept>

namespace kernel {

Task& spawn(std::string name, TaskKind kind, std::function<void()> body) {
    PlatformCall call;
    Task& task = requireCore().spawn(std::move(name), kind, std::move(body), false);
    schedulingPoint(Point::Queue);
    return task;
}

void join(Task& task) {
    PlatformCall call;
    verifier::requireIrql("join", kApcLevel);
    requireCore().join(task);
}

void schedulingPoint(Point point) {
    Task* self = currentTaskOrNull();
    if (self != nullptr && !kernelLockHeld()) {
        currentCore()->point(*self, point);
    }
}

Time now() {
    return currentCore() != nullptr ? currentCore()->now() : 0;
}
Mode mode() {
    return currentCore() != nullptr ? currentCore()->options().mode : Mode::Sim;
}
Time atTick(Time moment) {
    const Time tick = currentCore() != nullptr ? currentCore()->options().tick : 0;
    if (tick == 0 || moment > kForever - tick) {
        return moment;
    }
    const Time late = moment % tick;
    return late > 0 ? moment + tick - late : moment;
}
unsigned choose(unsigned count) {
    return count > 1 && currentCore() != nullptr ? currentCore()->choose(count) : 0;
}

unsigned raiseIrql(unsigned level) {
    Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return kPassiveLevel;
    }
    const unsigned old = self->irql;
    if (level < old) {
        verifier::fail(verifier::Rule::Argument, "raiseIrql", std::to_string(level),
                       "the level is below the current one");
    }
    if (level > old) {
        currentCore()->raise(*self, level);
    }
    return old;
}

void lowerIrql(unsigned level) {
    Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    if (level > self->irql) {
        verifier::fail(verifier::Rule::Argument, "lowerIrql", std::to_string(level),
                       "the level is above the current one");
    }
    if (level < self->irql) {
        currentCore()->lower(*self, level);
    }
}

void queueDpc(Routine routine) {
    PlatformCall call;
    requireCore().queueDpc(std::move(routine), std::nullopt);
    schedulingPoint(Point::Queue);
}

void queueDpc(Routine routine, unsigned processor) {
    PlatformCall call;
    requireCore().queueDpc(std::move(routine), processor);
    schedulingPoint(Point::Queue);
}

TimerId startTimer(Time due, Routine routine) {
    PlatformCall call;
    return requireCore().startTimer(due, std::move(routine), std::nullopt);
}

bool cancelTimer(TimerId timer) {
    PlatformCall call;
    return requireCore().cancelTimer(timer);
}

void queueWork(std::string name, std::function<void()> body) {
    PlatformCall call;
    requireCore().queueWork(std::move(name), std::move(body));
    schedulingPoint(Point::Queue);
}

void waitForWorkers() {
    PlatformCall call;
    requireCore().waitForWorkers();
}

bool block(const WaitReason& reason, Time deadline) {
    return requireCore().block(currentTask(), reason, deadline);
}

void wake(Task& task) {
    requireCore().wake(task);
}

bool waitUntil(const void* channel, const WaitReason& reason, Time deadline,
               const std::function<bool()>& done) {
    PlatformCall call;
    verifier::requireIrql(reason.call, kApcLevel);
    schedulingPoint(Point::Wait);
    return requireCore().waitUntil(channel, reason, deadline, done);
}

void wakeChannel(const void* channel) {
    PlatformCall call;
    requireCore().wakeChannel(channel);
    schedulingPoint(Point::Event);
}

// The machine's scheduler.

namespace {

// The device's side of the wire is promised its actions in the order they were scheduled, so all of them run
// on the first processor.
class MachineClock final : public base::Clock {
  public:
    Time now() const override { return kernel::now(); }
    void schedule(Time due, std::function<void()> action) override {
        requireCore().startTimer(due, std::move(action), 0);
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
    setCurrentCore(state_->core.get());
}

Scheduler::~Scheduler() {
    setCurrentCore(nullptr);
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

} // namespace kernel

extern "C" void KernelSchedulingPoint() {
    kernel::schedulingPoint(kernel::Point::Interlocked);
}
