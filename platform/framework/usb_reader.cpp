#include "platform/framework/usb_reader.h"

#include "platform/kernel/driver_call.h"

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

namespace {

constexpr UCHAR kDefaultReads = 2;
constexpr ULONG kReaderTag = 0x64525846; // "FXRd"

} // namespace

Reader::Reader(UsbPipe& pipe, const WDF_USB_CONTINUOUS_READER_CONFIG& config)
    : pipe_(pipe), config_(config),
      reads_(config.NumPendingReads != 0 ? config.NumPendingReads : kDefaultReads) {
    if (config.BufferAttributes != nullptr) {
        bufferAttributes_ = *config.BufferAttributes;
    }
}

NTSTATUS Reader::prepare(const Call& call) {
    for (Read& read : reads_) {
        Memory* memory = nullptr;
        const std::size_t size = config_.HeaderLength + config_.TransferLength + config_.TrailerLength;
        NTSTATUS status = Memory::allocate(call, NonPagedPoolNx, kReaderTag, size, {}, memory);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        status = adoptObject(*memory, &pipe_, bufferAttributes_ ? &*bufferAttributes_ : nullptr);
        if (!NT_SUCCESS(status)) {
            memory->release();
            return status;
        }
        read.buffer = Ref<Memory>(memory);
    }
    return STATUS_SUCCESS;
}

void Reader::start() {
    {
        KernelGuard guard;
        if (running_ || out_ != 0 || recovering_) {
            running_ = true;
            return;
        }
        running_ = true;
        out_ = static_cast<unsigned>(reads_.size());
    }
    for (Read& read : reads_) {
        submit(read);
    }
}

void Reader::stop() {
    std::vector<std::shared_ptr<Submission>> submissions;
    {
        KernelGuard guard;
        running_ = false;
        for (const Read& read : reads_) {
            if (read.submission) {
                submissions.push_back(read.submission);
            }
        }
    }
    for (const auto& submission : submissions) {
        submission->cancel(STATUS_CANCELLED);
    }
}

bool Reader::idleLocked() const {
    return out_ == 0 && !recovering_;
}

void Reader::dropBuffers() {
    for (Read& read : reads_) {
        read.buffer = {};
    }
}

void Reader::submit(Read& read) {
    auto submission = std::make_shared<Submission>(
        pipe_.usbDevice().host(), "continuous reader",
        [this, &read](const TransferResult& result) { completed(read, result); });
    usb::Transfer& transfer = submission->transfer();
    transfer.type = pipe_.transferType();
    transfer.endpoint = pipe_.address();
    transfer.data = {static_cast<std::uint8_t*>(read.buffer->buffer()) + config_.HeaderLength,
                     config_.TransferLength};
    submission->use(transfer.data.data(), transfer.data.size(), "continuous reader");
    bool withdraw = false;
    {
        KernelGuard guard;
        read.submission = submission;
        withdraw = !running_;
    }
    if (withdraw) {
        submission->cancel(STATUS_CANCELLED);
    }
    // The callbacks of one read come one after the other.
    kernel::announceRelease(&read);
    submission->start(kernel::kForever);
}

void Reader::completed(Read& read, const TransferResult& result) {
    // Once the reader counts as idle a pipe that is being removed waits no longer.
    const Ref<UsbPipe> pin(&pipe_);
    kernel::announceAcquire(&read);
    {
        std::shared_ptr<Submission> ended;
        KernelGuard guard;
        ended = std::move(read.submission);
    }
    pipe_.noteResult(result);
    if (NT_SUCCESS(result.status)) {
        callDriver("EvtUsbTargetPipeReadComplete", config_.EvtUsbTargetPipeReadComplete, pipe_.wdf(),
                   read.buffer->wdf(), size_t{result.actual}, config_.EvtUsbTargetPipeReadCompleteContext);
    }
    bool again = false;
    bool recover = false;
    {
        KernelGuard guard;
        again = running_ && !recovering_ && NT_SUCCESS(result.status);
        if (!again) {
            out_--;
            recover = running_ && !recovering_;
            if (recover) {
                recovering_ = true;
                failure_ = result;
            }
        }
    }
    if (again) {
        submit(read);
        return;
    }
    if (recover) {
        kernel::queueWork("continuous reader", [this] { this->recover(); });
    }
    pipe_.readerChanged();
}

// As the framework recovers by default: when the remaining reads have completed, the driver is asked, the
// pipe is reset and all reads are sent again. A device that has been removed, or a reset that fails, ends the
// reader until the next start of the target.
void Reader::recover() {
    const Ref<UsbPipe> pin(&pipe_);
    std::vector<std::shared_ptr<Submission>> submissions;
    TransferResult failure;
    {
        KernelGuard guard;
        failure = failure_;
        for (const Read& read : reads_) {
            if (read.submission) {
                submissions.push_back(read.submission);
            }
        }
    }
    for (const auto& submission : submissions) {
        submission->cancel(STATUS_CANCELLED);
    }
    kernel::waitUntil(&pipe_, {"continuous reader", &pipe_, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return out_ == 0;
    });
    bool again = true;
    if (config_.EvtUsbTargetPipeReadersFailed != nullptr) {
        again = callDriver("EvtUsbTargetPipeReadersFailed", config_.EvtUsbTargetPipeReadersFailed,
                           pipe_.wdf(), failure.status, failure.usbdStatus) != FALSE;
    }
    again = again && failure.usbdStatus != USBD_STATUS_DEVICE_GONE && NT_SUCCESS(pipe_.reset());
    {
        KernelGuard guard;
        recovering_ = false;
        again = again && running_;
        running_ = again;
        out_ = again ? static_cast<unsigned>(reads_.size()) : 0;
    }
    if (again) {
        for (Read& read : reads_) {
            submit(read);
        }
    }
    pipe_.readerChanged();
}

} // namespace framework
