// I/O targets: the state that decides whether a request goes out, waits or is refused.
//
// Started: requests go out. Stopped: requests wait and go out at the next start. Removing and Removed: a send
// is refused with STATUS_INVALID_DEVICE_STATE. WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE sends in all
// states but the last.
#pragma once

#include "platform/framework/object.h"
#include "platform/framework/usb_submission.h"

#include <wdfusb.h>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

namespace framework {

class Device;
class Memory;

// A request as its target sees it.
class SentRequest : public Object {
  public:
    using Object::Object;

    // Starts the request after it waited, ends it without a transfer, or cancels what was started.
    virtual void submitLate() = 0;
    virtual void finish(const TransferResult& result) = 0;
    virtual void withdraw(NTSTATUS reason) = 0;
};

class IoTarget : public Object {
  public:
    IoTarget(Kind kind, Device& device) : Object(kind), device_(device) {}

    Device& device() { return device_; }

    // What a request formatted for an URB, or for a control transfer, puts on the wire.
    using Done = std::function<void(const TransferResult&)>;
    virtual std::shared_ptr<Submission> urbSubmission(const Call& call, const Object& request,
                                                      const Memory& memory, std::size_t offset,
                                                      Done done) = 0;
    virtual std::shared_ptr<Submission> controlSubmission(const WDF_USB_CONTROL_SETUP_PACKET& setup,
                                                          void* data, std::size_t size, Done done) = 0;

    NTSTATUS start(const Call& call);

    // May return while the completion routines of requests still run that ended before the last one.
    void stop(const Call& call, WDF_IO_TARGET_SENT_IO_ACTION action);

    // The device has been removed: withdraws everything, waits for all completion routines, and sends nothing
    // any more.
    void shutDown();

    enum class Admission : std::uint8_t { Submit, Wait, Refuse };
    // Takes the request in. Waiting requests are kept until `start`, `withdrawWaiting` or `shutDown`.
    Admission admit(SentRequest& request, bool ignoreState);

    // Takes a waiting request out; false when it does not wait here.
    bool withdrawWaiting(SentRequest& request);

    // From the end of an admitted request to the end of its completion routine. The request is no longer out
    // when the routine begins, which may send it again.
    class Completion {
      public:
        Completion(IoTarget& target, SentRequest& request);
        ~Completion();
        Completion(const Completion&) = delete;
        Completion& operator=(const Completion&) = delete;

      private:
        const Ref<IoTarget> target_;
        bool endsDrain_ = false; // the last one out, which a stop waits for
    };

  protected:
    // Targets that are started and stopped with this one.
    virtual std::vector<Ref<IoTarget>> parts() const { return {}; }

    virtual void requireStoppable(const Call&) const {}

    // What a target sends by itself, beside the driver's requests. `stopReader` does not wait.
    virtual void startReader() {}
    virtual void stopReader() {}
    virtual bool readerIdleLocked() const { return true; }

    void dispose() override { shutDown(); }
    bool disposeWaits() const override { return true; }
    void wakeWaiters();

  private:
    enum class State : std::uint8_t { Started, Stopped, Removing, Removed };

    void withdrawSent();
    void waitForSent();
    template <typename Idle>
    void waitUntilIdle(Idle idle); // which is called with the kernel lock held

    Device& device_;

    // Guarded by the kernel lock.
    State state_ = State::Started;
    std::vector<SentRequest*> sent_; // each holds a reference of its own while it is out
    std::deque<SentRequest*> waiting_;
    unsigned routines_ = 0;     // completions under way
    bool drainAwaited_ = false; // a stop waits for the end of what was out
    unsigned stopsUnderWay_ = 0;
};

} // namespace framework
