#include "platform/framework/queue.h"

#include "platform/framework/device.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

Queue::Queue(Device& device, const WDF_IO_QUEUE_CONFIG& config)
    : PacketQueue(Kind::Queue), device_(device), config_(config),
      powerManaged_(config.PowerManaged != WdfFalse),
      limit_(config.DispatchType == WdfIoQueueDispatchSequential
                 ? 1
                 : config.Settings.Parallel.NumberOfPresentedRequests),
      state_(powerManaged_ && !device.queuesResumed() ? State::Stopped : State::Started) {}

bool Queue::driverMayDelete() const {
    return !device_.isDefaultQueue(*this);
}

void Queue::accept(PIRP irp, FileObject* file) {
    auto* request = new Request(irp, this, file);
    const NTSTATUS status = adoptForPacket(*request, *this, nullptr, "request of a packet");
    if (!NT_SUCCESS(status)) {
        request->release();
        Irp::complete(irp, status, 0);
        return;
    }
    deliver(Ref<Request>(request));
}

void Queue::deliver(Ref<Request> request) {
    bool refused = false;
    {
        KernelGuard guard;
        refused = state_ == State::Purged;
        if (!refused) {
            waiting_.push_back(std::move(request)); // a copy would take the kernel lock again
        }
    }
    if (refused) {
        request->complete(STATUS_INVALID_DEVICE_STATE, 0);
        return;
    }
    presentWaiting();
}

void Queue::presentWaiting() {
    for (;;) {
        Ref<Request> next;
        {
            KernelGuard guard;
            if (state_ != State::Started || waiting_.empty() || presented_ >= limit_) {
                return;
            }
            next = std::move(waiting_.front());
            waiting_.pop_front();
            presented_++;
            callbacks_++;
        }
        present(std::move(next));
    }
}

void Queue::present(Ref<Request> request) {
    request->setPresented();
    call(*request);
    {
        KernelGuard guard;
        callbacks_--;
    }
    kernel::wakeChannel(this);
}

void Queue::call(Request& request) {
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(request.irp());
    const auto& control = location.Parameters.DeviceIoControl;
    if (location.MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL &&
        config_.EvtIoInternalDeviceControl != nullptr) {
        callDriver("EvtIoInternalDeviceControl", config_.EvtIoInternalDeviceControl, wdf(), request.wdf(),
                   size_t{control.OutputBufferLength}, size_t{control.InputBufferLength},
                   control.IoControlCode);
    } else if (location.MajorFunction == IRP_MJ_DEVICE_CONTROL && config_.EvtIoDeviceControl != nullptr) {
        callDriver("EvtIoDeviceControl", config_.EvtIoDeviceControl, wdf(), request.wdf(),
                   size_t{control.OutputBufferLength}, size_t{control.InputBufferLength},
                   control.IoControlCode);
    } else if (config_.EvtIoDefault != nullptr) {
        callDriver("EvtIoDefault", config_.EvtIoDefault, wdf(), request.wdf());
    } else {
        request.complete(STATUS_INVALID_DEVICE_REQUEST, 0);
    }
}

void Queue::requestDone() {
    {
        KernelGuard guard;
        presented_--;
    }
    kernel::wakeChannel(this);
    presentWaiting();
}

void Queue::resume() {
    {
        KernelGuard guard;
        if (!powerManaged_ || state_ == State::Purged) {
            return;
        }
        state_ = State::Started;
    }
    presentWaiting();
}

void Queue::hold() {
    {
        KernelGuard guard;
        if (!powerManaged_ || state_ != State::Started) {
            return;
        }
        state_ = State::Stopped;
    }
    waitUntilIdle();
}

void Queue::purge() {
    std::deque<Ref<Request>> cancelled;
    {
        KernelGuard guard;
        state_ = State::Purged;
        cancelled.swap(waiting_);
    }
    for (const Ref<Request>& request : cancelled) {
        request->complete(STATUS_CANCELLED, 0);
    }
    waitUntilIdle();
}

void Queue::cancelWaiting(PFILE_OBJECT file) {
    const auto ofFile = [file](const Ref<Request>& request) {
        return IoGetCurrentIrpStackLocation(request->irp())->FileObject == file;
    };
    std::deque<Ref<Request>> cancelled;
    {
        KernelGuard guard;
        const auto first = std::stable_partition(waiting_.begin(), waiting_.end(), std::not_fn(ofFile));
        std::move(first, waiting_.end(), std::back_inserter(cancelled));
        waiting_.erase(first, waiting_.end());
    }
    for (const Ref<Request>& request : cancelled) {
        request->complete(STATUS_CANCELLED, 0);
    }
}

void Queue::waitUntilIdle() {
    kernel::waitUntil(this, {"I/O queue", this, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return presented_ == 0 && callbacks_ == 0;
    });
}

void Queue::dispose() {
    purge();
}

} // namespace framework

using framework::Call;
using kernel::kDispatchLevel;

namespace {

// A driver that relies on these would seem to work here, although they are never called.
void refuseUnusedCallbacks(const Call& call, const WDF_IO_QUEUE_CONFIG& config) {
    const std::pair<const char*, bool> callbacks[] = {
        {"EvtIoRead", config.EvtIoRead != nullptr},
        {"EvtIoWrite", config.EvtIoWrite != nullptr},
        {"EvtIoStop", config.EvtIoStop != nullptr},
        {"EvtIoResume", config.EvtIoResume != nullptr},
        {"EvtIoCanceledOnQueue", config.EvtIoCanceledOnQueue != nullptr},
    };
    for (const auto& [name, given] : callbacks) {
        if (given) {
            call.fail(framework::Rule::Argument, nullptr, fmt::format("This platform never calls {}.", name));
        }
    }
}

} // namespace

NTSTATUS WdfIoQueueCreate(WDFDEVICE Device, PWDF_IO_QUEUE_CONFIG Config,
                          PWDF_OBJECT_ATTRIBUTES QueueAttributes, WDFQUEUE* Queue) {
    Call call("WdfIoQueueCreate", kDispatchLevel);
    if (Queue != nullptr) {
        *Queue = nullptr;
    }
    auto device = call.object<framework::Device>(Device);
    if (Config->Size != sizeof(WDF_IO_QUEUE_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (!Config->DefaultQueue && Queue == nullptr) {
        return STATUS_INVALID_PARAMETER_4;
    }
    if (Config->DispatchType != WdfIoQueueDispatchParallel &&
        Config->Settings.Parallel.NumberOfPresentedRequests != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Config->DefaultQueue && device->pnpState() != framework::PnpState::Added) {
        call.fail(framework::Rule::PnpOrder, device.get(),
                  "The default queue is created before the device starts.");
    }
    refuseUnusedCallbacks(call, *Config);
    // Manual queues need the retrieval calls, which are not offered here.
    if (Config->DispatchType == WdfIoQueueDispatchManual) {
        return STATUS_NOT_SUPPORTED;
    }
    if (Config->DispatchType != WdfIoQueueDispatchSequential &&
        (Config->DispatchType != WdfIoQueueDispatchParallel ||
         Config->Settings.Parallel.NumberOfPresentedRequests == 0)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Config->EvtIoDefault == nullptr && Config->EvtIoDeviceControl == nullptr &&
        Config->EvtIoInternalDeviceControl == nullptr) {
        return STATUS_WDF_NO_CALLBACK;
    }
    const framework::CreationRules rules{.levelAllowed = true};
    framework::Ref<framework::Object> parent;
    NTSTATUS status = checkAttributes(call, QueueAttributes, rules, device.get(), parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (&requireDeviceAbove(call, *parent) != device.get()) {
        call.fail(framework::Rule::ObjectTree, parent.get(), "The parent belongs to another device.");
    }
    // The steps of a device look for its queues among its children.
    if (parent.get() != device.get()) {
        return STATUS_NOT_SUPPORTED;
    }
    framework::Ref<framework::Queue> queue;
    status = createObject(call, QueueAttributes, rules, device.get(), queue,
                          [&](framework::Object*) { return new framework::Queue(*device, *Config); });
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Config->DefaultQueue && !device->setDefaultQueue(*queue)) {
        queue->remove();
        return STATUS_UNSUCCESSFUL;
    }
    if (Queue != nullptr) {
        *Queue = queue->wdf();
    }
    return STATUS_SUCCESS;
}

WDFDEVICE WdfIoQueueGetDevice(WDFQUEUE Queue) {
    Call call("WdfIoQueueGetDevice", kDispatchLevel);
    return call.object<framework::Queue>(Queue)->device().wdf();
}
