#include "platform/kernel/platform_call.h"

#include "platform/kernel/sanitizer.h"

#include <ctime>

// A thread's processor time does not advance while it sleeps or another program runs, but reading it is a
// system call. So it is read only where a task enters the driver from outside at PASSIVE_LEVEL and where it
// leaves it again. The many platform calls between, and the short entries at DISPATCH_LEVEL, are measured in
// time stamp ticks, from which sleep is taken off.

namespace kernel {

namespace {

std::uint64_t ticks() {
    return __builtin_ia32_rdtsc();
}

std::uint64_t nanosecondsOf(const timespec& time) {
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

std::uint64_t monotonic() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return nanosecondsOf(time);
}

// The rate of the time stamp counter, measured against the clock since the process started.
class TickRate {
  public:
    TickRate() : startTicks_(ticks()), start_(monotonic()) {}

    double nanosecondsPerTick() const {
        const std::uint64_t passed = ticks() - startTicks_;
        return passed == 0 ? 0.0 : static_cast<double>(monotonic() - start_) / static_cast<double>(passed);
    }

  private:
    std::uint64_t startTicks_;
    std::uint64_t start_;
};

const TickRate tickRate;

// Ticks awake since the platform call under way began.
std::uint64_t ticksSinceLeft(const Account& account) {
    const std::uint64_t end = account.sleepingSince != 0 ? account.sleepingSince : ticks();
    const std::uint64_t slept = account.sleptTicks - account.sleptWhenLeft;
    const std::uint64_t passed = end - account.leftAt;
    return passed > slept ? passed - slept : 0;
}

void leaveDriver(Account& account) {
    account.leftAt = ticks();
    account.sleptWhenLeft = account.sleptTicks;
}

void returnToDriver(Account& account) {
    account.platformTicks += ticksSinceLeft(account);
}

} // namespace

void accountSleepBegins(Task& task) {
    task.account.sleepingSince = ticks();
}

void accountSleepEnds(Task& task) {
    task.account.sleptTicks += ticks() - task.account.sleepingSince;
    task.account.sleepingSince = 0;
}

namespace {

std::uint64_t inNanoseconds(std::uint64_t tickCount) {
    return static_cast<std::uint64_t>(static_cast<double>(tickCount) * tickRate.nanosecondsPerTick());
}

std::uint64_t difference(std::uint64_t whole, std::uint64_t part) {
    return whole > part ? whole - part : 0;
}

// Nanoseconds in the driver since the outermost entry. Ticks of platform calls also count what other programs
// took from the thread, so they can exceed its processor time.
std::uint64_t sinceEntry(const Task& task) {
    const Account& account = task.account;
    const bool outside = account.domain == Domain::Platform && account.depth != 0;
    const std::uint64_t platform = account.platformTicks + (outside ? ticksSinceLeft(account) : 0);
    if (account.byTicks) {
        const std::uint64_t end = account.sleepingSince != 0 ? account.sleepingSince : ticks();
        const std::uint64_t slept = account.sleptTicks - account.sleptAtEntry;
        return inNanoseconds(difference(end - account.enteredAt, slept + platform));
    }
    const std::uint64_t cpu = &task == currentTaskOrNull() ? threadCpuTime() : taskCpuTime(task);
    return difference(cpu - account.enteredAt, inNanoseconds(platform));
}

} // namespace

std::uint64_t driverNanoseconds(const Task& task) {
    return task.account.driver + (task.account.depth != 0 ? sinceEntry(task) : 0);
}

std::uint64_t driverTime() {
    const Task* task = currentTaskOrNull();
    return task != nullptr ? driverNanoseconds(*task) : 0;
}

const char* currentCallback() {
    const Task* task = currentTaskOrNull();
    return task != nullptr ? task->account.callback : "";
}

void enterDomain(Task& task, Domain domain) {
    if (domain == Domain::Platform && task.account.domain != Domain::Platform) {
        sanitizer::ignoreBegin();
    } else if (domain != Domain::Platform && task.account.domain == Domain::Platform) {
        sanitizer::ignoreEnd();
    }
    task.account.domain = domain;
}

void accountEntry(Task& task, Domain outer) {
    Account& account = task.account;
    if (account.depth++ == 0) {
        account.platformTicks = 0;
        account.sleptAtEntry = account.sleptTicks;
        account.byTicks = task.irql >= kDispatchLevel;
        account.enteredAt = account.byTicks ? ticks() : threadCpuTime();
    } else if (outer == Domain::Platform) {
        returnToDriver(account);
    }
}

void accountExit(Task& task, Domain outer) {
    Account& account = task.account;
    if (--account.depth == 0) {
        account.driver += sinceEntry(task);
    } else if (outer == Domain::Platform) {
        leaveDriver(account);
    }
}

PlatformCall::PlatformCall() {
    Task* task = currentTaskOrNull();
    if (task == nullptr || task->account.domain == Domain::Platform) {
        return;
    }
    outer_ = task->account.domain;
    if (outer_ == Domain::Driver) {
        leaveDriver(task->account);
    }
    enterDomain(*task, Domain::Platform);
}

PlatformCall::~PlatformCall() {
    Task* task = currentTaskOrNull();
    if (task == nullptr || outer_ == Domain::Platform) {
        return;
    }
    enterDomain(*task, outer_);
    if (outer_ == Domain::Driver) {
        returnToDriver(task->account);
    }
}

} // namespace kernel
