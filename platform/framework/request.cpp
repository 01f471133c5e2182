#include "platform/framework/request.h"

#include "platform/framework/driver.h"
#include "platform/framework/file_object.h"
#include "platform/framework/irp.h"
#include "platform/kernel/dispatcher.h"

#include <fmt/format.h>

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

Request::Request() : SentRequest(Kind::Request) {}

Request::Request(PIRP irp, PacketQueue* queue, FileObject* file)
    : SentRequest(Kind::Request), irp_(irp), queue_(queue), file_(file) {}

void Request::complete(NTSTATUS status, ULONG_PTR information) {
    noteCompleted(handle());
    Ref<PacketQueue> queue(presented_ ? queue_ : nullptr);
    const PIRP irp = irp_;
    remove();
    Irp::complete(irp, status, information);
    if (queue) {
        queue->requestDone();
    }
}

void Request::reuse(const Call& call, NTSTATUS status) {
    bool pending = false;
    Ref<IoTarget> formerTarget;
    {
        KernelGuard guard;
        pending = state_ == State::Sent;
        if (!pending) {
            state_ = State::Idle;
            status_ = status;
            cancelMarked_ = false;
            std::swap(target_, formerTarget);
        }
    }
    if (pending) {
        call.fail(Rule::RequestPending, this, "The request is reused while it is out.");
    }
    format_ = {};
    routine_ = nullptr;
    routineContext_ = nullptr;
    params_ = {};
    usbParams_.reset();
}

void Request::requireFormattable(const Call& call) const {
    State state = State::Idle;
    {
        KernelGuard guard;
        state = state_;
    }
    if (irp_ != nullptr) {
        call.fail(Rule::RequestNotFormatted, this,
                  "A request that arrived from outside cannot be forwarded here.");
    }
    if (state == State::Sent) {
        call.fail(Rule::RequestPending, this, "The request is formatted while it is out.");
    }
    if (state == State::Completed) {
        call.fail(Rule::RequestNotFormatted, this, "The request has completed and was not reused since.");
    }
}

void Request::setFormat(IoTarget& target, Format format) {
    format_ = std::move(format);
    Ref<IoTarget> reference(&target);
    KernelGuard guard;
    std::swap(target_, reference);
    state_ = State::Formatted;
}

void Request::formatForUrb(IoTarget& target, Ref<Memory> memory, std::size_t offset) {
    setFormat(target, UrbFormat{std::move(memory), offset});
}

void Request::formatForControl(IoTarget& target, const WDF_USB_CONTROL_SETUP_PACKET& setup, void* data,
                               std::size_t size, Ref<Memory> memory) {
    setFormat(target, ControlFormat{setup, data, size, std::move(memory)});
}

std::shared_ptr<Submission> Request::makeSubmission(const Call& call, IoTarget& target) {
    const auto done = [this](const TransferResult& result) { finish(result); };
    if (const auto* control = std::get_if<ControlFormat>(&format_)) {
        return target.controlSubmission(control->setup, control->data, control->size, done);
    }
    const auto& format = std::get<UrbFormat>(format_);
    return target.urbSubmission(call, *this, *format.memory, format.offset, done);
}

void Request::setCompletionRoutine(PFN_WDF_REQUEST_COMPLETION_ROUTINE routine, WDFCONTEXT context) {
    routine_ = routine;
    routineContext_ = context;
}

BOOLEAN Request::send(const Call& call, IoTarget& target, const WDF_REQUEST_SEND_OPTIONS* options) {
    State state = State::Idle;
    bool sameTarget = false;
    bool cancelMarked = false;
    {
        KernelGuard guard;
        state = state_;
        sameTarget = target_.get() == &target;
        cancelMarked = cancelMarked_;
    }
    if (state == State::Sent) {
        call.fail(Rule::RequestPending, this, "The request is sent while it is out.");
    }
    if (state != State::Formatted || !sameTarget) {
        call.fail(Rule::RequestNotFormatted, this,
                  state == State::Completed   ? "The request has completed and was not reused since."
                  : state == State::Formatted ? "The request is formatted for another target."
                                              : "The request has not been formatted.");
    }
    if (cancelMarked) {
        call.fail(Rule::RequestCancelled, this,
                  "The request was cancelled while it was not out and has not been reused since.");
    }
    const ULONG flags = options != nullptr ? options->Flags : 0;
    kernel::Time deadline = kernel::kForever;
    if ((flags & WDF_REQUEST_SEND_OPTION_TIMEOUT) != 0 && options->Timeout != 0) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = options->Timeout;
        deadline = kernel::deadlineOf(&timeout);
    }
    const bool synchronous = (flags & WDF_REQUEST_SEND_OPTION_SYNCHRONOUS) != 0;
    if (call.fault(kernel::FaultKind::Transfer)) {
        return refuse(kernel::faultRefusal());
    }
    auto submission = makeSubmission(call, target);
    {
        KernelGuard guard;
        state_ = State::Sent;
        synchronous_ = synchronous;
        senderMayGoOn_ = false;
        deadline_ = deadline;
        submission_ = std::move(submission);
    }
    Ref<Request> self(this);
    reference(); // given back by `finish`
    // The completion routine sees everything that the driver did before the send, on any processor.
    kernel::announceRelease(this);
    switch (target.admit(*this, (flags & WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE) != 0)) {
    case IoTarget::Admission::Refuse:
        release();
        return refuse(STATUS_INVALID_DEVICE_STATE);
    case IoTarget::Admission::Submit:
        submit();
        break;
    case IoTarget::Admission::Wait:
        startWaiting(deadline);
        break;
    }
    if (synchronous) {
        waitForCompletion();
    }
    return TRUE;
}

// The completion routine of a refused request never runs; its status says why it was refused.
BOOLEAN Request::refuse(NTSTATUS status) {
    std::shared_ptr<Submission> unused;
    KernelGuard guard;
    status_ = status;
    state_ = State::Formatted;
    unused = std::move(submission_);
    return FALSE;
}

void Request::startWaiting(kernel::Time deadline) {
    if (deadline == kernel::kForever) {
        return;
    }
    reference();
    KernelGuard guard;
    waitTimer_ = kernel::startTimer(deadline, [this] { waitingTimedOut(); });
}

void Request::waitingTimedOut() {
    const auto held = Ref<Request>::adopt(this);
    Ref<IoTarget> target;
    {
        KernelGuard guard;
        waitTimer_ = 0;
        target = target_.get() != nullptr ? refLocked(target_.get()) : Ref<IoTarget>();
    }
    if (target && target->withdrawWaiting(*this)) {
        finish({STATUS_IO_TIMEOUT, USBD_STATUS_CANCELED, 0});
    }
}

void Request::endWaiting() {
    kernel::TimerId timer = 0;
    {
        KernelGuard guard;
        timer = std::exchange(waitTimer_, 0);
    }
    if (timer != 0 && kernel::cancelTimer(timer)) {
        release();
    }
}

// The framework does not set the timer of the waiting request again. A synchronous send times its own wait.
void Request::submitLate() {
    endWaiting();
    {
        KernelGuard guard;
        if (!synchronous_) {
            deadline_ = kernel::kForever;
        }
    }
    submit();
}

void Request::submit() {
    std::shared_ptr<Submission> submission;
    kernel::Time deadline = kernel::kForever;
    {
        KernelGuard guard;
        submission = submission_;
        deadline = deadline_;
    }
    submission->start(deadline);
}

void Request::withdraw(NTSTATUS reason) {
    std::shared_ptr<Submission> submission;
    {
        KernelGuard guard;
        submission = submission_;
    }
    if (submission) {
        submission->cancel(reason);
    }
}

// The result says whether there was something to cancel, not how the request ends.
BOOLEAN Request::cancel() {
    Ref<IoTarget> target;
    {
        KernelGuard guard;
        cancelMarked_ = true;
        if (state_ != State::Sent) {
            return FALSE;
        }
        target = refLocked(target_.get());
    }
    if (target->withdrawWaiting(*this)) {
        finish({STATUS_CANCELLED, USBD_STATUS_CANCELED, 0});
        return TRUE;
    }
    std::shared_ptr<Submission> submission;
    {
        KernelGuard guard;
        submission = submission_;
    }
    return submission && submission->cancel(STATUS_CANCELLED) ? TRUE : FALSE;
}

void Request::prepareResult(const TransferResult& result) {
    WDF_REQUEST_COMPLETION_PARAMS_INIT(&params_);
    params_.Type = WdfRequestTypeUsb;
    params_.IoStatus.Status = result.status;
    usbParams_ = std::make_unique<WDF_USB_REQUEST_COMPLETION_PARAMS>();
    usbParams_->UsbdStatus = result.usbdStatus;
    if (const auto* control = std::get_if<ControlFormat>(&format_)) {
        auto& transfer = usbParams_->Parameters.DeviceControlTransfer;
        usbParams_->Type = WdfUsbRequestTypeDeviceControlTransfer;
        transfer.Buffer = control->memory ? control->memory->wdf() : nullptr;
        transfer.SetupPacket = control->setup;
        transfer.Length = result.actual;
        params_.IoStatus.Information = result.actual;
    } else {
        // The URB says how many bytes were moved. What the USB stack leaves in Information is its own affair.
        const auto& format = std::get<UrbFormat>(format_);
        auto* urb = reinterpret_cast<PURB>(static_cast<UCHAR*>(format.memory->buffer()) + format.offset);
        urb->UrbHeader.Status = result.usbdStatus;
        urb->UrbBulkOrInterruptTransfer.TransferBufferLength = result.actual;
        usbParams_->Type = WdfUsbRequestTypeDeviceUrb;
        usbParams_->Parameters.DeviceUrb.Buffer = format.memory->wdf();
    }
    params_.Parameters.Usb.Completion = usbParams_.get();
}

void Request::finish(const TransferResult& result) {
    endWaiting();
    kernel::announceAcquire(this);
    prepareResult(result);
    const auto routine = routine_;
    const auto context = routineContext_;
    Ref<IoTarget> target;
    bool synchronous = false;
    std::shared_ptr<Submission> ended;
    {
        KernelGuard guard;
        state_ = State::Completed;
        status_ = result.status;
        target = refLocked(target_.get());
        synchronous = synchronous_;
        ended = std::move(submission_);
    }
    // A request that ended while it waited at its target gives its buffers back here.
    ended.reset();
    {
        const IoTarget::Completion completion(*target, *this);
        // From here on the routine may reuse, send or delete the request.
        if (routine != nullptr) {
            callDriver("EvtRequestCompletion", routine, wdf(), static_cast<WDFIOTARGET>(target->handle()),
                       &params_, context);
        }
    }
    if (synchronous) {
        {
            KernelGuard guard;
            senderMayGoOn_ = true;
        }
        kernel::wakeChannel(this);
    }
    release();
}

void Request::waitForCompletion() {
    kernel::waitUntil(this, {"WdfRequestSend", this, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return senderMayGoOn_;
    });
}

NTSTATUS Request::status() const {
    KernelGuard guard;
    return status_;
}

void Request::requireCompleted(const Call& call) const {
    State state = State::Idle;
    {
        KernelGuard guard;
        state = state_;
    }
    if (state == State::Sent) {
        call.fail(Rule::RequestPending, this, "The result is read while the request is out.");
    }
    if (state != State::Completed) {
        call.fail(Rule::Argument, this, "The request has no result: it has not been sent and completed.");
    }
}

void Request::completionParams(WDF_REQUEST_COMPLETION_PARAMS& params) const {
    params = params_;
}

void Request::dispose() {
    bool out = false;
    {
        KernelGuard guard;
        out = state_ == State::Sent;
    }
    if (out) {
        verifier::fail(Rule::RequestPending, "WdfObjectDelete", name(),
                       "The request is deleted while it is out.");
    }
}

} // namespace framework

using framework::Call;
using framework::Ref;
using framework::Rule;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

namespace {

// A request that arrived as a packet and that the driver still has to complete.
Ref<framework::Request> packetRequest(const Call& call, WDFREQUEST handle) {
    auto request = call.object<framework::Request>(handle);
    if (request->irp() == nullptr) {
        call.fail(Rule::Argument, request.get(), "The driver created this request itself.");
    }
    // The queue may still hold a reference, as long as the callback has not returned.
    if (request->deleting()) {
        call.fail(Rule::HandleStale, request.get(), "The request has been completed.");
    }
    return request;
}

void completePacket(const Call& call, WDFREQUEST handle, NTSTATUS status, ULONG_PTR information) {
    call.requireNotCompleted(handle);
    packetRequest(call, handle)->complete(status, information);
}

NTSTATUS retrieveBuffer(const Call& call, WDFREQUEST handle, bool output, size_t minimum, PVOID* buffer,
                        size_t* length) {
    auto request = packetRequest(call, handle);
    const PIRP irp = request->irp();
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    const auto& control = location.Parameters.DeviceIoControl;
    *buffer = nullptr;
    const bool neither = METHOD_FROM_CTL_CODE(control.IoControlCode) == METHOD_NEITHER;
    // The other methods need buffers and MDLs that this machine's senders do not make.
    if (location.MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL || !neither) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    const size_t size = output ? control.OutputBufferLength : control.InputBufferLength;
    if (size == 0 || size < minimum) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    *buffer = output ? irp->UserBuffer : control.Type3InputBuffer;
    if (length != nullptr) {
        *length = size;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS WdfRequestCreate(PWDF_OBJECT_ATTRIBUTES RequestAttributes, WDFIOTARGET IoTarget,
                          WDFREQUEST* Request) {
    Call call("WdfRequestCreate", kDispatchLevel);
    if (Request == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Request = nullptr;
    if (IoTarget != nullptr) {
        (void)call.object<framework::IoTarget>(IoTarget); // It does not own the request.
    }
    Ref<framework::Request> request;
    const NTSTATUS status = createObject(call, RequestAttributes, {}, &requireDriver(call), request,
                                         [](framework::Object*) { return new framework::Request(); });
    if (NT_SUCCESS(status)) {
        *Request = request->wdf();
    }
    return status;
}

NTSTATUS WdfRequestReuse(WDFREQUEST Request, PWDF_REQUEST_REUSE_PARAMS ReuseParams) {
    Call call("WdfRequestReuse", kDispatchLevel);
    auto request = call.object<framework::Request>(Request);
    if (ReuseParams->Size != sizeof(WDF_REQUEST_REUSE_PARAMS) ||
        ReuseParams->Flags != WDF_REQUEST_REUSE_NO_FLAGS) {
        return STATUS_INVALID_PARAMETER;
    }
    request->reuse(call, ReuseParams->Status);
    return STATUS_SUCCESS;
}

BOOLEAN WdfRequestSend(WDFREQUEST Request, WDFIOTARGET Target, PWDF_REQUEST_SEND_OPTIONS Options) {
    Call call("WdfRequestSend", kDispatchLevel);
    auto request = call.object<framework::Request>(Request);
    auto target = call.object<framework::IoTarget>(Target);
    if (Options != nullptr) {
        constexpr ULONG kOffered = WDF_REQUEST_SEND_OPTION_TIMEOUT | WDF_REQUEST_SEND_OPTION_SYNCHRONOUS |
                                   WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE;
        if (Options->Size != sizeof(WDF_REQUEST_SEND_OPTIONS) || (Options->Flags & ~kOffered) != 0) {
            call.fail(Rule::Argument, request.get(), fmt::format("Send options 0x{:x}.", Options->Flags));
        }
        if ((Options->Flags & WDF_REQUEST_SEND_OPTION_SYNCHRONOUS) != 0) {
            verifier::requireIrql(call.name(), kPassiveLevel);
        }
    }
    return request->send(call, *target, Options);
}

NTSTATUS WdfRequestGetStatus(WDFREQUEST Request) {
    Call call("WdfRequestGetStatus", kDispatchLevel);
    return call.object<framework::Request>(Request)->status();
}

BOOLEAN WdfRequestCancelSentRequest(WDFREQUEST Request) {
    Call call("WdfRequestCancelSentRequest", kDispatchLevel);
    return call.object<framework::Request>(Request)->cancel();
}

VOID WdfRequestSetCompletionRoutine(WDFREQUEST Request, PFN_WDF_REQUEST_COMPLETION_ROUTINE CompletionRoutine,
                                    WDFCONTEXT CompletionContext) {
    Call call("WdfRequestSetCompletionRoutine", kDispatchLevel);
    auto request = call.object<framework::Request>(Request);
    request->requireFormattable(call);
    request->setCompletionRoutine(CompletionRoutine, CompletionContext);
}

VOID WdfRequestGetCompletionParams(WDFREQUEST Request, PWDF_REQUEST_COMPLETION_PARAMS Params) {
    Call call("WdfRequestGetCompletionParams", kDispatchLevel);
    auto request = call.object<framework::Request>(Request);
    if (Params->Size != sizeof(WDF_REQUEST_COMPLETION_PARAMS)) {
        call.fail(Rule::Argument, request.get(), "WDF_REQUEST_COMPLETION_PARAMS has a wrong size.");
    }
    request->requireCompleted(call);
    request->completionParams(*Params);
}

VOID WdfRequestComplete(WDFREQUEST Request, NTSTATUS Status) {
    Call call("WdfRequestComplete", kDispatchLevel);
    completePacket(call, Request, Status, 0);
}

VOID WdfRequestCompleteWithInformation(WDFREQUEST Request, NTSTATUS Status, ULONG_PTR Information) {
    Call call("WdfRequestCompleteWithInformation", kDispatchLevel);
    completePacket(call, Request, Status, Information);
}

VOID WdfRequestGetParameters(WDFREQUEST Request, PWDF_REQUEST_PARAMETERS Parameters) {
    Call call("WdfRequestGetParameters", kDispatchLevel);
    auto request = packetRequest(call, Request);
    if (Parameters->Size != sizeof(WDF_REQUEST_PARAMETERS)) {
        call.fail(Rule::Argument, request.get(), "WDF_REQUEST_PARAMETERS has a wrong size.");
    }
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(request->irp());
    WDF_REQUEST_PARAMETERS_INIT(Parameters);
    Parameters->MinorFunction = location.MinorFunction;
    Parameters->Type = static_cast<WDF_REQUEST_TYPE>(location.MajorFunction);
    if (location.MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        const auto& control = location.Parameters.DeviceIoControl;
        auto& io = Parameters->Parameters.DeviceIoControl;
        io.OutputBufferLength = control.OutputBufferLength;
        io.InputBufferLength = control.InputBufferLength;
        io.IoControlCode = control.IoControlCode;
        io.Type3InputBuffer = control.Type3InputBuffer;
    }
}

NTSTATUS WdfRequestRetrieveInputBuffer(WDFREQUEST Request, size_t MinimumRequiredLength, PVOID* Buffer,
                                       size_t* Length) {
    Call call("WdfRequestRetrieveInputBuffer", kDispatchLevel);
    return retrieveBuffer(call, Request, false, MinimumRequiredLength, Buffer, Length);
}

NTSTATUS WdfRequestRetrieveOutputBuffer(WDFREQUEST Request, size_t MinimumRequiredSize, PVOID* Buffer,
                                        size_t* Length) {
    Call call("WdfRequestRetrieveOutputBuffer", kDispatchLevel);
    return retrieveBuffer(call, Request, true, MinimumRequiredSize, Buffer, Length);
}

WDFFILEOBJECT WdfRequestGetFileObject(WDFREQUEST Request) {
    Call call("WdfRequestGetFileObject", kDispatchLevel);
    auto request = packetRequest(call, Request);
    return request->file() != nullptr ? static_cast<WDFFILEOBJECT>(request->file()->handle()) : nullptr;
}
