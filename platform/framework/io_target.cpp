#include "platform/framework/io_target.h"

#include <algorithm>

namespace framework {

using kernel::KernelGuard;

NTSTATUS IoTarget::start(const Call& call) {
    if (call.fault(kernel::FaultKind::TargetStart)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::deque<SentRequest*> waiting;
    bool stopping = false;
    {
        KernelGuard guard;
        if (state_ >= State::Removing) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        stopping = stopsUnderWay_ != 0;
        if (!stopping) {
            state_ = State::Started;
            waiting.swap(waiting_);
            sent_.insert(sent_.end(), waiting.begin(), waiting.end());
        }
    }
    if (stopping) {
        // The framework waits for the stop, for ever when the stop waits for this task, and cannot at
        // DISPATCH_LEVEL.
        call.fail(Rule::TargetState, this, "The target is started while it is being stopped.");
    }
    startReader();
    for (SentRequest* request : waiting) {
        request->submitLate();
    }
    for (const Ref<IoTarget>& part : parts()) {
        const NTSTATUS status = part->start(call);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void IoTarget::stop(const Call& call, WDF_IO_TARGET_SENT_IO_ACTION action) {
    requireStoppable(call);
    {
        KernelGuard guard;
        stopsUnderWay_++;
        if (state_ < State::Removing) {
            state_ = State::Stopped;
        }
    }
    stopReader();
    if (action == WdfIoTargetCancelSentIo) {
        withdrawSent();
    }
    if (action != WdfIoTargetLeaveSentIoPending) {
        waitForSent();
    }
    waitUntilIdle([this] { return readerIdleLocked(); });
    {
        KernelGuard guard;
        stopsUnderWay_--;
    }
    for (const Ref<IoTarget>& part : parts()) {
        part->stop(call, action);
    }
}

void IoTarget::shutDown() {
    std::deque<SentRequest*> waiting;
    {
        KernelGuard guard;
        state_ = std::max(state_, State::Removing);
        waiting.swap(waiting_);
        sent_.insert(sent_.end(), waiting.begin(), waiting.end());
    }
    stopReader();
    for (SentRequest* request : waiting) {
        request->finish({STATUS_WDF_DEVICE_REMOVED_NOT_SENT, USBD_STATUS_CANCELED, 0});
    }
    withdrawSent();
    waitUntilIdle([this] { return sent_.empty() && routines_ == 0 && readerIdleLocked(); });
    KernelGuard guard;
    state_ = State::Removed;
}

void IoTarget::withdrawSent() {
    std::vector<Ref<SentRequest>> sent;
    {
        KernelGuard guard;
        for (SentRequest* request : sent_) {
            sent.push_back(refLocked(request));
        }
    }
    for (const Ref<SentRequest>& request : sent) {
        request->withdraw(STATUS_CANCELLED);
    }
}

void IoTarget::waitForSent() {
    {
        KernelGuard guard;
        drainAwaited_ |= !sent_.empty();
    }
    waitUntilIdle([this] { return !drainAwaited_; });
}

template <typename Idle>
void IoTarget::waitUntilIdle(Idle idle) {
    {
        KernelGuard guard;
        if (idle()) {
            return;
        }
    }
    kernel::waitUntil(this, {"I/O target", this, nullptr}, kernel::kForever, [&idle] {
        KernelGuard guard;
        return idle();
    });
}

void IoTarget::wakeWaiters() {
    kernel::wakeChannel(this);
}

IoTarget::Admission IoTarget::admit(SentRequest& request, bool ignoreState) {
    KernelGuard guard;
    if (state_ == State::Removed || (state_ == State::Removing && !ignoreState)) {
        return Admission::Refuse;
    }
    if (state_ == State::Stopped && !ignoreState) {
        waiting_.push_back(&request);
        return Admission::Wait;
    }
    sent_.push_back(&request);
    return Admission::Submit;
}

bool IoTarget::withdrawWaiting(SentRequest& request) {
    KernelGuard guard;
    const auto found = std::find(waiting_.begin(), waiting_.end(), &request);
    if (found == waiting_.end()) {
        return false;
    }
    waiting_.erase(found);
    sent_.push_back(&request);
    return true;
}

IoTarget::Completion::Completion(IoTarget& target, SentRequest& request) : target_(&target) {
    KernelGuard guard;
    target.sent_.erase(std::find(target.sent_.begin(), target.sent_.end(), &request));
    target.routines_++;
    endsDrain_ = target.drainAwaited_ && target.sent_.empty();
}

IoTarget::Completion::~Completion() {
    {
        KernelGuard guard;
        target_->routines_--;
        if (endsDrain_) {
            target_->drainAwaited_ = false;
        }
    }
    target_->wakeWaiters();
}

} // namespace framework

using framework::Call;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

NTSTATUS WdfIoTargetStart(WDFIOTARGET IoTarget) {
    Call call("WdfIoTargetStart", kDispatchLevel);
    return call.object<framework::IoTarget>(IoTarget)->start(call);
}

VOID WdfIoTargetStop(WDFIOTARGET IoTarget, WDF_IO_TARGET_SENT_IO_ACTION Action) {
    Call call("WdfIoTargetStop", Action == WdfIoTargetLeaveSentIoPending ? kDispatchLevel : kPassiveLevel);
    auto target = call.object<framework::IoTarget>(IoTarget);
    if (Action < WdfIoTargetCancelSentIo || Action > WdfIoTargetLeaveSentIoPending) {
        call.fail(framework::Rule::Argument, target.get(), "This is no action for sent requests.");
    }
    target->stop(call, Action);
}
