// Records the transfers between host and adapter in order, with their times, and compares register accesses
// with tables of what is expected.
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

struct Transfer {
    usb::TransferType type = usb::TransferType::Control;
    std::uint8_t endpoint = 0;
    usb::SetupPacket setup;         // of a control transfer
    std::vector<std::uint8_t> data; // OUT: as sent; IN: as answered
    usb::Time time = 0;             // submission; for a report on the interrupt pipe, completion

    bool isVendor() const { return type == usb::TransferType::Control && (setup.requestType & 0x60) == 0x40; }
    bool isAccess(std::uint8_t request, std::uint16_t offset) const {
        return isVendor() && setup.request == request && setup.index == offset;
    }
    std::uint32_t word() const; // of a register access
};

constexpr std::uint8_t kReadRegister = 0x40;
constexpr std::uint8_t kWriteRegister = 0x41;
constexpr std::uint16_t kSerialControl = 0x8020;
constexpr std::uint16_t kSerialReadData = 0x8024;

// Passes every transfer on to the adapter behind it. An interrupt transfer is recorded when it brings a
// report.
class Recorder final : public usb::Device {
  public:
    // For `inFront` of rig::PlugOptions. The clock is known once the session exists.
    std::function<usb::Device&(usb::Device&)> wrap(usb::Clock& clock);

    usb::Speed speed() const override { return inner_->speed(); }
    void submit(usb::Transfer& transfer) override;
    void cancel(usb::Transfer& transfer) override { inner_->cancel(transfer); }
    void disconnect() override { inner_->disconnect(); }

    void clear();
    std::vector<Transfer> transfers() const;
    // Vendor requests. Without `serial`, those to the serial master's registers are left out.
    std::vector<Transfer> registerAccesses(bool serial = true) const;

  private:
    std::size_t record(const usb::Transfer& transfer, std::span<const std::uint8_t> data);

    usb::Device* inner_ = nullptr;
    usb::Clock* clock_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<Transfer> transfers_;
    std::size_t cleared_ = 0; // transfers recorded before the first of `transfers_`
};

// One line of a table of register traffic.
struct Step {
    enum class Kind { Read, Write, Set, Clear, SerialRead, SerialTimeout };

    Kind kind;
    std::uint16_t offset = 0;
    std::uint32_t value = 0; // written; or the mask

    // Of a serial read: one that succeeds, or one that no device acknowledges.
    std::uint8_t device = 0;
    std::uint8_t deviceOffset = 0;
};

constexpr Step read(std::uint16_t offset) {
    return {Step::Kind::Read, offset};
}
constexpr Step write(std::uint16_t offset, std::uint32_t value) {
    return {Step::Kind::Write, offset, value};
}
// A read, then a write with bits set or cleared. The bits of one mask may be changed in several rounds.
constexpr Step set(std::uint16_t offset, std::uint32_t mask) {
    return {Step::Kind::Set, offset, mask};
}
constexpr Step clear(std::uint16_t offset, std::uint32_t mask) {
    return {Step::Kind::Clear, offset, mask};
}
constexpr Step i2cRead(std::uint8_t device, std::uint8_t offset) {
    return {Step::Kind::SerialRead, 0, 0, device, offset};
}
constexpr Step i2cTimeout(std::uint8_t device, std::uint8_t offset) {
    return {Step::Kind::SerialTimeout, 0, 0, device, offset};
}

// Describes the first of `transfers` that does not follow the table; empty when all of them do.
std::string differs(std::span<const Transfer> transfers, std::span<const Step> table, unsigned revision);

} // namespace system_test
