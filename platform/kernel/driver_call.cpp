#include "platform/kernel/driver_call.h"

#include "platform/kernel/core.h"
#include "platform/kernel/lock_tracking.h"
#include "platform/verifier/verifier.h"

#include <fmt/format.h>

#include <utility>

namespace kernel {

DriverCall::DriverCall(const char* callback) {
    Task* task = currentTaskOrNull();
    if (task == nullptr) {
        return;
    }
    irql_ = task->irql;
    locks_ = locksHeld();
    criticalRegions_ = criticalRegionsHeld();
    outerDomain_ = task->account.domain;
    outerCallback_ = task->account.callback;
    task->account.callback = callback;
    accountEntry(*task, outerDomain_);
    enterDomain(*task, Domain::Driver);
}

DriverCall::~DriverCall() {
    Task* task = currentTaskOrNull();
    if (task == nullptr) {
        return;
    }
    enterDomain(*task, outerDomain_);
    accountExit(*task, outerDomain_);
    const char* callback = task->account.callback;
    task->account.callback = outerCallback_;
    if (task->irql != irql_) {
        verifier::fail(
            verifier::Rule::IrqlChanged, callback, callback,
            fmt::format("the callback was entered at level {} and returned at {}", irql_, task->irql));
    }
    if (criticalRegionsHeld() != criticalRegions_) {
        verifier::fail(
            verifier::Rule::CriticalRegion, callback, callback,
            fmt::format("the callback was entered in {} critical regions and returned in {}: a mutex or wait "
                        "lock was taken or released inside",
                        criticalRegions_, criticalRegionsHeld()));
    }
    if (locksHeld() != locks_) {
        verifier::fail(verifier::Rule::LockLeftHeld, callback,
                       task->locks.empty() ? "" : describeObject(task->locks.back().lock),
                       fmt::format("the callback was entered with {} locks held and returned with {}", locks_,
                                   locksHeld()));
    }
}

SystemWork::SystemWork() : outer_(std::exchange(currentTask().systemWork, true)) {}

SystemWork::~SystemWork() {
    currentTask().systemWork = outer_;
}

void requireSystemThread(const char* call) {
    const Task* task = currentTaskOrNull();
    if (task == nullptr || task->kind != TaskKind::Host || task->systemWork || *task->account.callback == 0) {
        return;
    }
    verifier::fail(verifier::Rule::SystemThread, call, task->account.callback,
                   "The call belongs in a system thread, and this callback runs in a thread of the client.");
}

std::vector<DriverTime> driverTimes() {
    return currentCore() != nullptr ? currentCore()->driverTimes() : std::vector<DriverTime>{};
}

} // namespace kernel
