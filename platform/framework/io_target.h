// I/O targets: the state that decides whether a request goes out, waits or is refused.
//
// Started: requests go out. Stopped: requests wait and go out at the next start, as the framework does it; a
// time-out counts while they wait. Removed (the device is gone for good): a send is refused with
// STATUS_INVALID_DEVICE_STATE. WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE sends in Stopped, too.
#pragma once

#include "platform/framework/object.h"

#include <deque>
#include <vector>

namespace framework {

class Device;
class Request;
class UsbDevice;

class IoTarget : public Object {
  public:
    IoTarget(Kind kind, Device& device) : Object(kind), device_(device) {}

    Device& device() { return device_; }
    virtual UsbDevice& usbDevice() = 0;

    NTSTATUS start(const Call& call);
    void stop(WDF_IO_TARGET_SENT_IO_ACTION action);

    // The device has gone: withdraws everything, and nothing goes out any more.
    void shutDown();

    enum class Admission : std::uint8_t { Submit, Wait, Refuse };
    // Takes the request in. Waiting requests are kept until `start`, `withdrawWaiting` or `shutDown`.
    Admission admit(Request& request, bool ignoreState);

    // Takes a waiting request out; false when it does not wait here.
    bool withdrawWaiting(Request& request);

    // A request that was admitted has completed, its completion routine included.
    void requestDone(Request& request);

    bool isStarted() const;

  protected:
    // What a target sends by itself, beside the driver's requests. `stopReader` does not wait.
    virtual void startReader() {}
    virtual void stopReader() {}
    virtual bool readerIdleLocked() const { return true; }

    void dispose() override { shutDown(); }
    bool disposeWaits() const override { return true; }
    void wakeWaiters();

  private:
    enum class State : std::uint8_t { Started, Stopped, Removed };

    void withdrawSent();
    void waitUntilQuiet();
    void enter(State state);

    Device& device_;

    // Guarded by the kernel lock.
    State state_ = State::Started;
    std::vector<Request*> sent_; // each holds a reference of its own while it is out
    std::deque<Request*> waiting_;
};

} // namespace framework
