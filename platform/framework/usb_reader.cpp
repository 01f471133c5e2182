#include "platform/framework/usb_reader.h"

#include "platform/framework/device.h"
#include "platform/kernel/driver_call.h"

#include <algorithm>
#include <cstring>

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

namespace {

constexpr UCHAR kDefaultReads = 2;
constexpr UCHAR kMaximumReads = 10;
constexpr ULONG kReaderTag = 0x64525846; // "FXRd"

std::size_t readCount(UCHAR wanted) {
    return wanted == 0 ? kDefaultReads : std::min(wanted, kMaximumReads);
}

} // namespace

Reader::Reader(UsbPipe& pipe, const WDF_USB_CONTINUOUS_READER_CONFIG& config)
    : pipe_(pipe), config_(config), reads_(readCount(config.NumPendingReads)) {
    if (config.BufferAttributes != nullptr) {
        bufferAttributes_ = *config.BufferAttributes;
    }
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
    submitAll();
}

void Reader::stop() {
    {
        KernelGuard guard;
        running_ = false;
    }
    cancelReads();
}

bool Reader::idleLocked() const {
    return out_ == 0 && !recovering_;
}

bool Reader::recoversHere() const {
    const kernel::Task* self = &kernel::currentTask();
    KernelGuard guard;
    return asking_ == self;
}

void Reader::dropBuffers() {
    for (Read& read : reads_) {
        read.buffer = {};
    }
}

void Reader::submitAll() {
    for (Read& read : reads_) {
        submit(read);
    }
}

// Every submission has memory of its own. That of the one before ends here, unless the driver refers to it.
bool Reader::renewBuffer(Read& read) {
    if (const Ref<Memory> last = std::exchange(read.buffer, {})) {
        last->remove();
    }
    const std::size_t size = config_.HeaderLength + config_.TransferLength + config_.TrailerLength;
    Memory* memory = nullptr;
    if (!NT_SUCCESS(Memory::allocate("continuous reader", NonPagedPoolNx, kReaderTag, size, {}, memory))) {
        return false;
    }
    std::memset(memory->buffer(), 0, size);
    if (!NT_SUCCESS(adoptObject(*memory, &pipe_, bufferAttributes_ ? &*bufferAttributes_ : nullptr))) {
        memory->release();
        return false;
    }
    read.buffer = Ref<Memory>(memory);
    return true;
}

void Reader::submit(Read& read) {
    if (!renewBuffer(read)) {
        endRead({STATUS_INSUFFICIENT_RESOURCES, USBD_STATUS_SUCCESS, 0}, false);
        return;
    }
    auto submission = std::make_shared<Submission>(
        pipe_.usbDevice().host(), "continuous reader",
        [this, &read](const TransferResult& result) { completed(read, result); });
    usb::Transfer& transfer = submission->transfer();
    transfer.type = pipe_.transferType();
    transfer.endpoint = pipe_.address();
    transfer.interval = pipe_.interval();
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
    const bool succeeded = NT_SUCCESS(result.status);
    if (succeeded) {
        callDriver("EvtUsbTargetPipeReadComplete", config_.EvtUsbTargetPipeReadComplete, pipe_.wdf(),
                   read.buffer->wdf(), size_t{result.actual}, config_.EvtUsbTargetPipeReadCompleteContext);
    }
    bool again = false;
    {
        KernelGuard guard;
        again = succeeded && running_ && !recovering_;
    }
    if (again) {
        submit(read);
    } else {
        // A read that was cancelled, by whatever it was, ends in silence until the next stop and start.
        endRead(result, !succeeded && result.status != STATUS_CANCELLED);
    }
}

// A read is down. One that found no memory does not call for a recovery until all are down.
void Reader::endRead(const TransferResult& result, bool recovers) {
    bool recover = false;
    {
        KernelGuard guard;
        out_--;
        const bool lastWithoutMemory = result.status == STATUS_INSUFFICIENT_RESOURCES && out_ == 0;
        recover = running_ && !recovering_ && (recovers || lastWithoutMemory);
        if (recover) {
            recovering_ = true;
            failure_ = result;
        }
    }
    if (recover) {
        kernel::queueWork("continuous reader", [this] { this->recover(); });
    }
    pipe_.readerChanged();
}

void Reader::cancelReads() {
    std::vector<std::shared_ptr<Submission>> submissions;
    {
        KernelGuard guard;
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

// Asks the driver, then the port.
bool Reader::isWorthRepeating(const TransferResult& failure) {
    if (config_.EvtUsbTargetPipeReadersFailed != nullptr) {
        {
            KernelGuard guard;
            asking_ = &kernel::currentTask();
        }
        const BOOLEAN wanted =
            callDriver("EvtUsbTargetPipeReadersFailed", config_.EvtUsbTargetPipeReadersFailed, pipe_.wdf(),
                       failure.status, failure.usbdStatus);
        {
            KernelGuard guard;
            asking_ = nullptr;
        }
        if (wanted == FALSE) {
            return false;
        }
    }
    return pipe_.device().host().connected();
}

// When the remaining reads have completed and neither driver nor port object, the pipe is reset and all reads
// are sent again, whether or not the reset worked, and as often as it takes.
void Reader::recover() {
    const Ref<UsbPipe> pin(&pipe_);
    cancelReads();
    kernel::waitUntil(&pipe_, {"continuous reader", &pipe_, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return out_ == 0;
    });
    TransferResult failure;
    {
        KernelGuard guard;
        failure = failure_;
    }
    bool again = isWorthRepeating(failure);
    if (again) {
        (void)pipe_.reset();
    }
    {
        KernelGuard guard;
        recovering_ = false;
        again = again && running_;
        running_ = again;
        out_ = again ? static_cast<unsigned>(reads_.size()) : 0;
    }
    if (again) {
        submitAll();
    }
    pipe_.readerChanged();
}

} // namespace framework
