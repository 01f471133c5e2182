#include "platform/framework/io_target.h"

#include <algorithm>

namespace framework {

using kernel::KernelGuard;

void IoTarget::enter(State state) {
    KernelGuard guard;
    if (state_ != State::Removed) {
        state_ = state;
    }
}

NTSTATUS IoTarget::start(const Call& call) {
    if (call.fault(kernel::FaultKind::TargetStart)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::deque<SentRequest*> waiting;
    {
        KernelGuard guard;
        if (state_ == State::Removed) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        state_ = State::Started;
        waiting.swap(waiting_);
        sent_.insert(sent_.end(), waiting.begin(), waiting.end());
    }
    startReader();
    for (SentRequest* request : waiting) {
        request->submit();
    }
    return STATUS_SUCCESS;
}

void IoTarget::stop(WDF_IO_TARGET_SENT_IO_ACTION action) {
    enter(State::Stopped);
    stopReader();
    if (action == WdfIoTargetLeaveSentIoPending) {
        return;
    }
    if (action == WdfIoTargetCancelSentIo) {
        withdrawSent();
    }
    waitUntilQuiet();
}

void IoTarget::shutDown() {
    enter(State::Removed);
    stopReader();
    std::deque<SentRequest*> waiting;
    {
        KernelGuard guard;
        waiting.swap(waiting_);
        sent_.insert(sent_.end(), waiting.begin(), waiting.end());
    }
    for (SentRequest* request : waiting) {
        request->finish({STATUS_CANCELLED, USBD_STATUS_CANCELED, 0});
    }
    withdrawSent();
    waitUntilQuiet();
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

void IoTarget::waitUntilQuiet() {
    kernel::waitUntil(this, {"I/O target", this, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return sent_.empty() && readerIdleLocked();
    });
}

void IoTarget::wakeWaiters() {
    kernel::wakeChannel(this);
}

IoTarget::Admission IoTarget::admit(SentRequest& request, bool ignoreState) {
    KernelGuard guard;
    if (state_ == State::Removed) {
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

void IoTarget::requestDone(SentRequest& request) {
    {
        // A completion routine may have sent the request again, so only one of its entries is removed.
        KernelGuard guard;
        sent_.erase(std::find(sent_.begin(), sent_.end(), &request));
    }
    wakeWaiters();
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
    target->stop(Action);
}
