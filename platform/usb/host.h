// The host's end of the cable, between the framework's USB target and the device in the port.
#pragma once

#include "platform/usb/capture.h"
#include "platform/usb/clock.h"
#include "platform/usb/device.h"
#include "platform/usb/link_timing.h"

#include <cstdint>
#include <memory>
#include <string>

namespace usb {

// When a completion that the device delivers inside `submit` reaches the driver.
enum class InlineCompletion : std::uint8_t {
    Never,    // always through a DPC
    Explored, // the schedule chooses: inside the driver's send, or through a DPC
};

struct HostOptions {
    LinkOptions link;    // bandwidth and latency; zero bandwidth takes the speed's default
    std::string capture; // pcapng file to write; empty for none
    InlineCompletion inlineCompletion = InlineCompletion::Never;
};

// The chain host -> capture -> link timing -> device. Transfers that the framework submits complete through
// DPCs (or inside the call, see above); after `disconnect` all of them complete with `Gone`.
class Host final : public Device {
  public:
    Host(Device& device, Clock& clock, const HostOptions& options);
    ~Host() override;

    Speed speed() const override;
    void submit(Transfer& transfer) override;
    void cancel(Transfer& transfer) override;
    void disconnect() override; // the cable is pulled

    // What the port says. A device that answers that it is gone has left the port.
    bool connected() const;

    // Selective suspend of the port while the device is not in D0: transfers that arrive wait (until
    // cancelled or timed out) and start when the port resumes.
    void suspend();
    void resume();

    LinkTiming& link();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace usb
