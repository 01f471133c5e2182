#include "platform/kernel/core.h"

#include "platform/kernel/sanitizer.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kernel {

namespace {

// Written by the thread that creates and destroys the scheduler, while no task runs.
Core* machineCore = nullptr;

} // namespace

Core* currentCore() {
    return machineCore;
}

void setCurrentCore(Core* core) {
    machineCore = core;
    setKernelLock(core);
    verifier::watch(core);
}

Core& requireCore() {
    if (machineCore == nullptr) {
        throw std::logic_error("no machine is running");
    }
    return *machineCore;
}

void changeWaitOwner(Task& task, const Task* owner) {
    task.reason.owner = owner;
}

Task& spawnDetached(std::string name, TaskKind kind, std::function<void()> body) {
    PlatformCall call;
    return requireCore().spawn(std::move(name), kind, std::move(body), true);
}

Core::Core(const SchedulerOptions& options) : options_(options) {}

Core::~Core() = default;

const std::string* Core::taskName() const {
    const Task* task = currentTaskOrNull();
    return task != nullptr ? &task->name : nullptr;
}

Task& Core::spawn(std::string name, TaskKind kind, std::function<void()> body, bool detached) {
    reap();
    auto* task = new Task(std::move(name), kind, std::move(body));
    task->detached = detached;
    {
        KernelLockIfFree lock;
        tasks_.push_back(task);
    }
    announceRelease(task);
    taskLaunched(*task);
    launch(*task);
    return *task;
}

void Core::launch(Task& task) {
    struct Start {
        Core* core;
        Task* task;
    };
    auto* start = new Start{this, &task};
    const int error = pthread_create(
        &task.thread, nullptr,
        [](void* argument) -> void* {
            const Start begin = *static_cast<Start*>(argument);
            delete static_cast<Start*>(argument);
            begin.core->runTask(*begin.task);
            return nullptr;
        },
        start);
    if (error != 0) {
        delete start;
        throw std::system_error(error, std::generic_category(), "cannot start a thread for " + task.name);
    }
}

void Core::runTask(Task& task) {
    setCurrentTask(&task);
    taskBegins(task);
    if (task.kind != TaskKind::Host) {
        enterDomain(task, Domain::Platform);
    }
    announceAcquire(&task);
    task.body();
    enterDomain(task, Domain::Platform);
    task.body = nullptr;
    announceRelease(&task);
    {
        KernelGuard guard;
        accountEnded(task);
        task.endedCpu = threadCpuTime();
        if (task.endThreadObject != nullptr) {
            task.endThreadObject(task);
        }
        task.state = Task::State::Ended;
        std::erase(tasks_, &task);
        if (task.detached) {
            ended_.push_back(&task);
        }
        if (task.joiner != nullptr) {
            wake(*task.joiner);
        }
    }
    // Another task may free the record from here on.
    taskEnds(task);
    sanitizer::ignoreEnd();
}

void Core::join(Task& task) {
    {
        KernelGuard guard;
        while (task.state != Task::State::Ended) {
            Task& self = currentTask();
            task.joiner = &self;
            block(self, {"join", &task, nullptr}, kForever);
        }
    }
    pthread_join(task.thread, nullptr);
    announceAcquire(&task);
    delete &task;
}

void Core::abandon() {
    for (const std::vector<Task*>* tasks : {&tasks_, &ended_}) {
        for (const Task* task : *tasks) {
            pthread_detach(task->thread);
        }
    }
}

void Core::reap() {
    if (kernelLockHeld()) {
        return; // a thread that is about to end may need it once more
    }
    std::vector<Task*> ended;
    {
        KernelLockIfFree lock;
        ended.swap(ended_);
    }
    for (Task* task : ended) {
        if (task == currentTaskOrNull()) {
            // It has ended but still passes the processor on, and may be starting a task for that.
            KernelLockIfFree lock;
            ended_.push_back(task);
            continue;
        }
        pthread_join(task->thread, nullptr);
        delete task;
    }
}

void Core::accountEnded(const Task& task) {
    const std::uint64_t nanoseconds = driverNanoseconds(task);
    if (nanoseconds == 0) {
        return;
    }
    for (DriverTime& time : endedTimes_) {
        if (time.task == task.name && time.kind == task.kind) {
            time.nanoseconds += nanoseconds;
            return;
        }
    }
    endedTimes_.push_back({task.name, task.kind, nanoseconds});
}

std::vector<DriverTime> Core::driverTimes() {
    KernelLockIfFree lock;
    std::vector<DriverTime> times = endedTimes_;
    for (const Task* task : tasks_) {
        const std::uint64_t nanoseconds = driverNanoseconds(*task);
        if (nanoseconds != 0) {
            times.push_back({task->name, task->kind, nanoseconds});
        }
    }
    return times;
}

// Workers are tasks whose body is a loop: they take one piece of work each time they are woken.

void Core::queueWork(std::string name, std::function<void()> body) {
    std::uint64_t number = 0;
    unsigned worker = 0;
    {
        KernelLockIfFree lock;
        number = ++workQueued_;
        outstandingWork_.insert(number);
        if (!idleWorkers_.empty()) {
            Task& idle = *idleWorkers_.back();
            idleWorkers_.pop_back();
            idle.work = std::move(body);
            idle.workName = std::move(name);
            idle.workNumber = number;
            announceRelease(&idle.work);
            wake(idle);
            return;
        }
        worker = ++workersCreated_;
    }
    auto begin = [this, number, workName = std::move(name), work = std::move(body)]() mutable {
        Task& self = currentTask();
        self.work = std::move(work);
        self.workName = std::move(workName);
        self.workNumber = number;
        workerLoop(self);
    };
    // std::function needs a copyable target; the work itself is moved out of it once.
    auto shared = std::make_shared<decltype(begin)>(std::move(begin));
    spawn(
        fmt::format("worker {}", worker), TaskKind::Worker, [shared] { (*shared)(); }, true);
}

void Core::workerLoop(Task& self) {
    for (;;) {
        announceAcquire(&self.work);
        const std::function<void()> work = std::exchange(self.work, nullptr);
        work();
        KernelGuard guard;
        outstandingWork_.erase(self.workNumber);
        self.workName.clear();
        wakeChannel(&outstandingWork_);
        if (dismissing_) {
            return;
        }
        idleWorkers_.push_back(&self);
        self.idle = true;
        while (!self.work && !dismissing_) {
            block(self, {"worker", nullptr, nullptr}, kForever);
        }
        self.idle = false;
        if (!self.work) {
            return;
        }
    }
}

void Core::waitForWorkers() {
    std::uint64_t last = 0;
    {
        KernelGuard guard;
        last = workQueued_;
    }
    waitUntil(&outstandingWork_, {"waitForWorkers", nullptr, nullptr}, kForever, [this, last] {
        KernelGuard guard;
        return outstandingWork_.empty() || *outstandingWork_.begin() > last;
    });
}

void Core::dismissWorkers() {
    dismissing_ = true;
    for (Task* worker : std::exchange(idleWorkers_, {})) {
        wake(*worker);
    }
}

// Channels.

bool Core::waitUntil(const void* channel, const WaitReason& reason, Time deadline,
                     const std::function<bool()>& done) {
    Task& self = currentTask();
    for (;;) {
        // The waiter is registered before `done` is called, so that a change between the two is not missed.
        ChannelWaiter waiter{&self, false};
        {
            KernelGuard guard;
            channels_[channel].push_back(&waiter);
        }
        const bool isDone = done();
        bool inTime = true;
        {
            KernelGuard guard;
            while (!isDone && inTime && !waiter.signaled) {
                inTime = block(self, reason, deadline);
            }
            if (!waiter.signaled) {
                auto waiters = channels_.find(channel);
                std::erase(waiters->second, &waiter);
                if (waiters->second.empty()) {
                    channels_.erase(waiters);
                }
            }
        }
        if (isDone || !inTime) {
            announceAcquire(channel);
            return isDone || done();
        }
    }
}

void Core::wakeChannel(const void* channel) {
    announceRelease(channel);
    KernelLockIfFree lock;
    auto waiters = channels_.find(channel);
    if (waiters == channels_.end()) {
        return;
    }
    for (ChannelWaiter* waiter : waiters->second) {
        waiter->signaled = true;
        wake(*waiter->task);
    }
    channels_.erase(waiters);
}

// Reports.

std::string Core::describeWait(const Task& task) const {
    std::string text = fmt::format("waits in {}", task.reason.call);
    auto joined = std::find(tasks_.begin(), tasks_.end(), task.reason.object);
    if (joined != tasks_.end()) {
        text += fmt::format(" for {}", (*joined)->name);
    } else if (task.reason.object != nullptr) {
        text += fmt::format(" for {}", verifier::lockOrder().describe(task.reason.object));
    }
    if (task.reason.owner != nullptr) {
        text += fmt::format(" held by {}", task.reason.owner->name);
    }
    if (task.deadline != kForever) {
        text += fmt::format(" until {}", task.deadline);
    }
    return text;
}

std::string Core::describeTasks() const {
    std::string text;
    for (const Task* task : tasks_) {
        if (task->idle) {
            continue;
        }
        text += text.empty() ? "" : "; ";
        text += task->workName.empty() ? task->name : fmt::format("{} ({})", task->name, task->workName);
        text += task->irql == kPassiveLevel ? " " : fmt::format(" at level {} ", task->irql);
        text += task->state == Task::State::Blocked ? describeWait(*task) : "could run";
    }
    return text;
}

void Core::requireNoWaitCycle(Task& self) {
    std::string cycle = fmt::format("{} {}", self.name, describeWait(self));
    const Task* next = self.reason.owner;
    for (std::size_t count = 0; next != nullptr && count <= tasks_.size(); count++) {
        if (next == &self) {
            verifier::fail(verifier::Rule::Deadlock, self.reason.call,
                           verifier::lockOrder().describe(self.reason.object),
                           "the tasks wait for each other: " + cycle);
        }
        // A task that was woken but has not run yet does not wait any more.
        if (next->state != Task::State::Blocked || next->woken) {
            return;
        }
        cycle += fmt::format("; {} {}", next->name, describeWait(*next));
        next = next->reason.owner;
    }
}

} // namespace kernel
