// Requests: those that arrive as packets and are completed by the driver, and those that the driver creates,
// formats and sends to a target.
#pragma once

#include "platform/framework/io_target.h"
#include "platform/framework/memory.h"
#include "platform/framework/packet_queue.h"

#include <wdfusb.h>

#include <memory>
#include <variant>

namespace framework {

class Request final : public SentRequest {
  public:
    // Of the driver.
    Request();

    // Of a packet; `queue` is null for a file create, `file` may be.
    Request(PIRP irp, PacketQueue* queue, FileObject* file);

    WDFREQUEST wdf() const { return static_cast<WDFREQUEST>(handle()); }
    PIRP irp() const { return irp_; }
    FileObject* file() const { return file_; }

    // Packets. `setPresented`: the completion is counted by the queue.
    void setPresented() { presented_ = true; }
    void complete(NTSTATUS status, ULONG_PTR information);

    // Driver requests: idle or reused -> formatted -> sent -> completed -> reused ...
    void reuse(const Call& call, NTSTATUS status);
    void requireFormattable(const Call& call) const;
    void formatForUrb(IoTarget& target, Ref<Memory> memory, std::size_t offset);
    void formatForControl(IoTarget& target, const WDF_USB_CONTROL_SETUP_PACKET& setup, void* data,
                          std::size_t size, Ref<Memory> memory);
    void setCompletionRoutine(PFN_WDF_REQUEST_COMPLETION_ROUTINE routine, WDFCONTEXT context);
    BOOLEAN send(const Call& call, IoTarget& target, const WDF_REQUEST_SEND_OPTIONS* options);
    BOOLEAN cancel();
    NTSTATUS status() const;
    void requireCompleted(const Call& call) const;
    void completionParams(WDF_REQUEST_COMPLETION_PARAMS& params) const;

    void submitLate() override;
    void finish(const TransferResult& result) override;
    void withdraw(NTSTATUS reason) override;

  protected:
    void dispose() override;
    bool driverMayDelete() const override { return irp_ == nullptr; }

  private:
    enum class State : std::uint8_t { Idle, Formatted, Sent, Completed };

    // What a formatted request is going to do.
    struct UrbFormat {
        Ref<Memory> memory;
        std::size_t offset = 0;
    };
    struct ControlFormat {
        WDF_USB_CONTROL_SETUP_PACKET setup = {};
        void* data = nullptr;
        std::size_t size = 0;
        Ref<Memory> memory; // null for a plain buffer
    };
    using Format = std::variant<std::monostate, UrbFormat, ControlFormat>;

    void setFormat(IoTarget& target, Format format);
    std::shared_ptr<Submission> makeSubmission(const Call& call, IoTarget& target);
    BOOLEAN refuse(NTSTATUS status);
    void submit();
    void startWaiting(kernel::Time deadline);
    void waitingTimedOut();
    void endWaiting();
    void prepareResult(const TransferResult& result);
    void waitForCompletion();

    // Packets; set once.
    const PIRP irp_ = nullptr;
    PacketQueue* const queue_ = nullptr;
    FileObject* const file_ = nullptr;
    bool presented_ = false; // written before the driver sees the request

    // Driver requests, guarded by the kernel lock.
    State state_ = State::Idle;
    NTSTATUS status_ = STATUS_SUCCESS;
    Ref<IoTarget> target_;      // formatted for
    bool cancelMarked_ = false; // by a cancellation, until the next reuse
    bool synchronous_ = false;
    bool senderMayGoOn_ = false; // of a synchronous request: its completion routine has returned
    kernel::Time deadline_ = 0;
    std::shared_ptr<Submission> submission_; // while out
    kernel::TimerId waitTimer_ = 0;          // while it waits at a stopped target; holds a reference

    // Written while no other task can use them: before the send and before the completion routine.
    Format format_;
    PFN_WDF_REQUEST_COMPLETION_ROUTINE routine_ = nullptr;
    WDFCONTEXT routineContext_ = nullptr;
    WDF_REQUEST_COMPLETION_PARAMS params_ = {};
    std::unique_ptr<WDF_USB_REQUEST_COMPLETION_PARAMS> usbParams_; // gone at the next reuse
};

} // namespace framework
