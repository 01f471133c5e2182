// Everything that crosses the default pipe, in order, with the time it arrived; and tables of what should.
#pragma once

#include "platform/usb/clock.h"
#include "platform/usb/device.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace system_test {

struct ControlTransfer {
    usb::SetupPacket setup;
    std::vector<std::uint8_t> data; // OUT: as sent; IN: as answered
    usb::Time time = 0;             // when it was submitted

    bool isVendor() const { return (setup.requestType & 0x60) == 0x40; }
    std::uint32_t word() const; // of a register access
};

// Stands in front of an adapter, passes everything on and keeps the control transfers.
class Recorder final : public usb::Device {
  public:
    // `inFront` of rig::PlugOptions. The clock is known once the session exists.
    std::function<usb::Device&(usb::Device&)> wrap(usb::Clock& clock);

    usb::Speed speed() const override { return inner_->speed(); }
    void submit(usb::Transfer& transfer) override;
    void cancel(usb::Transfer& transfer) override { inner_->cancel(transfer); }
    void disconnect() override { inner_->disconnect(); }

    void clear();
    std::vector<ControlTransfer> transfers() const;
    // Vendor requests without those to the serial master's registers, unless `serial`.
    std::vector<ControlTransfer> registerAccesses(bool serial = true) const;

  private:
    usb::Device* inner_ = nullptr;
    usb::Clock* clock_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<ControlTransfer> transfers_;
};

// One line of a table of register traffic.
struct Step {
    enum class Kind { Read, Write, Set, Clear, SerialRead, SerialSilence };

    Kind kind;
    std::uint16_t offset = 0;
    std::uint32_t value = 0; // written; or the mask

    // Serial: device and offset. A read that succeeds, and a read that nobody answers.
    std::uint8_t device = 0;
    std::uint8_t deviceOffset = 0;
};

constexpr Step read(std::uint16_t offset) {
    return {Step::Kind::Read, offset};
}
constexpr Step write(std::uint16_t offset, std::uint32_t value) {
    return {Step::Kind::Write, offset, value};
}
// Read, then written back with bits set or cleared; the bits of one mask may come in several rounds.
constexpr Step set(std::uint16_t offset, std::uint32_t mask) {
    return {Step::Kind::Set, offset, mask};
}
constexpr Step clear(std::uint16_t offset, std::uint32_t mask) {
    return {Step::Kind::Clear, offset, mask};
}
constexpr Step i2cRead(std::uint8_t device, std::uint8_t offset) {
    return {Step::Kind::SerialRead, 0, 0, device, offset};
}
constexpr Step i2cSilence(std::uint8_t device, std::uint8_t offset) {
    return {Step::Kind::SerialSilence, 0, 0, device, offset};
}

// What of `transfers` does not follow the table, as text; empty when all of it does.
std::string differs(std::span<const ControlTransfer> transfers, std::span<const Step> table,
                    unsigned revision);

} // namespace system_test
