#include "platform/kernel/task.h"

#include <ctime>
#include <stdexcept>

namespace kernel {

namespace {

thread_local Task* threadTask __attribute__((tls_model("initial-exec"))) = nullptr;

std::uint64_t timeOf(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace

Task* currentTaskOrNull() {
    return threadTask;
}

Task& currentTask() {
    if (threadTask == nullptr) {
        throw std::logic_error("this thread is no task of the machine");
    }
    return *threadTask;
}

void setCurrentTask(Task* task) {
    threadTask = task;
}

const std::string& taskName(const Task& task) {
    return task.name;
}

TaskKind taskKind(const Task& task) {
    return task.kind;
}

std::uint64_t threadCpuTime() {
    return timeOf(CLOCK_THREAD_CPUTIME_ID);
}

std::uint64_t taskCpuTime(const Task& task) {
    if (task.state == Task::State::Ended) {
        return task.endedCpu;
    }
    clockid_t clock = 0;
    return pthread_getcpuclockid(task.thread, &clock) == 0 ? timeOf(clock) : 0;
}

unsigned currentIrql() {
    return threadTask != nullptr ? threadTask->irql : kPassiveLevel;
}

} // namespace kernel
