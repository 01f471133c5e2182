// The time a transfer takes on the cable: a latency, and its bytes at the link's bandwidth, one bulk transfer
// at a time in the order submitted.
#pragma once

#include "platform/usb/clock.h"
#include "platform/usb/device.h"

#include <cstdint>
#include <memory>

namespace usb {

struct LinkOptions {
    std::uint64_t bytesPerSecond = 0; // 0: 40,000,000 at high speed, 400,000,000 at SuperSpeed
    Time latency = -1;                // per transfer; -1: 125 us at high speed, 20 us at SuperSpeed
};

class LinkTiming final : public Device {
  public:
    LinkTiming(Device& inner, Clock& clock, const LinkOptions& options);
    ~LinkTiming() override;

    Speed speed() const override;
    void submit(Transfer& transfer) override;
    void cancel(Transfer& transfer) override;
    void disconnect() override;

    // Changes the bandwidth for transfers that start from now on: a link that becomes slow and fast again.
    void setBandwidth(std::uint64_t bytesPerSecond);
    std::uint64_t bandwidth() const;

    // Time during which bulk data was moving, and bytes moved, since the last call of `resetCounters`.
    Time busyTime() const;
    std::uint64_t bulkBytes() const;
    std::uint64_t bulkTransfers() const; // with at least one byte
    void resetCounters();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace usb
