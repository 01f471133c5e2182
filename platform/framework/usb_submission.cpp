#include "platform/framework/usb_submission.h"

#include "platform/kernel/fault_points.h"

#include <utility>

namespace framework {

using kernel::KernelGuard;

namespace {

// An error on the wire has used up all tries before the host gives up.
constexpr kernel::Time kErrorTime = base::kMillisecond;

} // namespace

Submission::Submission(usb::Device& host, std::string_view what,
                       std::function<void(const TransferResult&)> done)
    : host_(host), what_(what), done_(std::move(done)) {}

void Submission::use(const void* address, std::size_t size, std::string what) {
    uses_.push_back(kernel::beginBufferUse(address, size, std::move(what)));
}

void Submission::endUses() {
    for (const kernel::BufferUse use : uses_) {
        kernel::endBufferUse(use);
    }
    uses_.clear();
}

void Submission::start(kernel::Time deadline) {
    const std::shared_ptr<Submission> self = shared_from_this();
    if (immediate_) {
        endUses();
        std::exchange(done_, nullptr)(*immediate_);
        return;
    }
    transfer_.complete = [self](usb::Transfer&) { self->completed(); };
    if (kernel::faultPoint(kernel::FaultKind::Transfer, what_)) {
        transfer_.status = usb::Status::Error;
        kernel::startTimer(kernel::now() + kErrorTime, [self] { self->completed(); });
        return;
    }
    if (deadline != kernel::kForever) {
        // The timer is known under the lock, so that a completion on another processor finds it.
        KernelGuard guard;
        timer_ = kernel::startTimer(deadline, [self] { self->cancel(STATUS_IO_TIMEOUT); });
        timerRuns_ = true;
    }
    kernel::schedulingPoint(kernel::Point::Transfer);
    host_.submit(transfer_);
    bool withdraw = false;
    {
        KernelGuard guard;
        submitted_ = true;
        withdraw = cancelWanted_ && !finished_;
    }
    if (withdraw) {
        host_.cancel(transfer_);
    }
}

bool Submission::cancel(NTSTATUS reason) {
    {
        KernelGuard guard;
        if (finished_) {
            return false;
        }
        cancelReason_ = reason;
        if (!submitted_) {
            cancelWanted_ = true;
            return true;
        }
    }
    host_.cancel(transfer_);
    return true;
}

void Submission::completed() {
    NTSTATUS cancelReason = STATUS_CANCELLED;
    kernel::TimerId timer = 0;
    bool timerRuns = false;
    {
        KernelGuard guard;
        finished_ = true;
        cancelReason = cancelReason_;
        timer = timer_;
        timerRuns = std::exchange(timerRuns_, false);
    }
    if (timerRuns) {
        kernel::cancelTimer(timer);
    }
    endUses();

    TransferResult result;
    result.actual = transfer_.actual;
    switch (transfer_.status) {
    case usb::Status::Success:
        break;
    case usb::Status::Stalled:
        result.status = STATUS_UNSUCCESSFUL;
        result.usbdStatus = USBD_STATUS_STALL_PID;
        break;
    case usb::Status::Cancelled:
        result.status = cancelReason;
        result.usbdStatus = USBD_STATUS_CANCELED;
        break;
    case usb::Status::Gone:
        result.status = STATUS_NO_SUCH_DEVICE;
        result.usbdStatus = USBD_STATUS_DEVICE_GONE;
        break;
    case usb::Status::Error:
        result.status = STATUS_UNSUCCESSFUL;
        result.usbdStatus = USBD_STATUS_XACT_ERROR;
        break;
    }
    // The transfer's closure keeps this object alive; taken out, it does so until the end of this function.
    const auto closure = std::exchange(transfer_.complete, nullptr);
    const auto done = std::exchange(done_, nullptr);
    done(result);
}

TransferResult controlTransfer(usb::Device& host, const usb::SetupPacket& setup, void* data, std::size_t size,
                               kernel::Time deadline) {
    struct Outcome {
        TransferResult result;
        bool done = false; // guarded by the kernel lock
    };
    auto outcome = std::make_shared<Outcome>();
    auto submission =
        std::make_shared<Submission>(host, "control transfer", [outcome](const TransferResult& result) {
            {
                KernelGuard guard;
                outcome->result = result;
                outcome->done = true;
            }
            kernel::wakeChannel(outcome.get());
        });
    usb::Transfer& transfer = submission->transfer();
    transfer.type = usb::TransferType::Control;
    transfer.setup = setup;
    transfer.data = {static_cast<std::uint8_t*>(data), size};
    if (size != 0) {
        submission->use(data, size, "control transfer");
    }
    submission->start(deadline);
    kernel::waitUntil(outcome.get(), {"control transfer", outcome.get(), nullptr}, kernel::kForever,
                      [outcome] {
                          KernelGuard guard;
                          return outcome->done;
                      });
    return outcome->result;
}

} // namespace framework
