// One transfer on its way to the device and back: fault point, time-out, cancellation, and the marks on the
// memory it uses. Every transfer of the framework is one of these.
#pragma once

#include "platform/kernel/pool.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/device.h"

#include <usb.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace framework {

struct TransferResult {
    NTSTATUS status = STATUS_SUCCESS;
    USBD_STATUS usbdStatus = USBD_STATUS_SUCCESS;
    ULONG actual = 0;
};

class Submission : public std::enable_shared_from_this<Submission> {
  public:
    // `done` runs once, after the marks are off, at DISPATCH_LEVEL or inside `start`.
    Submission(usb::Device& host, std::string_view what, std::function<void(const TransferResult&)> done);
    Submission(const Submission&) = delete;
    Submission& operator=(const Submission&) = delete;
    ~Submission() { endUses(); }

    usb::Transfer& transfer() { return transfer_; } // filled in before `start`

    // Memory that is in use from now until the transfer is done, also while it waits for its `start`; or
    // until this object is destroyed, when it was never started.
    void use(const void* address, std::size_t size, std::string what);

    // Instead of reaching the device, the transfer ends in `start` with this result.
    void endAtOnce(const TransferResult& result) { immediate_ = result; }

    // `deadline` on the machine's clock, kernel::kForever for none.
    void start(kernel::Time deadline);

    // Withdraws the transfer; unless it completes by itself first, it ends with `reason`. Before `start` it
    // takes effect there. False when it has completed.
    bool cancel(NTSTATUS reason);

  private:
    void completed();
    void endUses();

    usb::Device& host_;
    const std::string_view what_;
    std::function<void(const TransferResult&)> done_;
    usb::Transfer transfer_;
    std::vector<kernel::BufferUse> uses_;
    std::optional<TransferResult> immediate_;

    // Guarded by the kernel lock.
    bool submitted_ = false;
    bool cancelWanted_ = false;
    bool finished_ = false;
    NTSTATUS cancelReason_ = STATUS_CANCELLED;
    kernel::TimerId timer_ = 0;
    bool timerRuns_ = false;
};

// Sends a control transfer and waits for it. PASSIVE_LEVEL. `deadline` as above.
TransferResult controlTransfer(usb::Device& host, const usb::SetupPacket& setup, void* data, std::size_t size,
                               kernel::Time deadline);

} // namespace framework
