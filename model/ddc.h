// The display data channel: the monitor's EDID behind two wires (VESA E-DDC 1.2).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "model/faults.h"
#include "model/i2c_device.h"

namespace model {

// The lines and what is at their end. Both masters, the adapter's and the transmitter's, drive the same
// lines.
class DdcBus {
  public:
    void attach(std::span<const std::uint8_t> edid);
    void detach();
    bool attached() const { return attached_; }
    bool hasEdid() const { return attached_ && !edid_.empty(); }
    const std::vector<std::uint8_t>& edid() const { return edid_; }

    void setFault(DdcFault fault) { fault_ = fault; }
    void limitAnswers(std::optional<std::uint32_t> bytes) { answersLeft_ = bytes; }

    // Whether some unfinished transaction holds the lines, and the attempt to free them.
    bool held() const { return hung_ || fault_ != DdcFault::None; }
    void recover();

    // Whether the monitor acknowledges this segment: only one with more than two blocks has segments.
    I2cAnswer::Kind selectSegment(std::uint8_t segment) const;

    struct ReadResult {
        I2cAnswer::Kind kind;
        unsigned bytes; // delivered before a hang
    };
    // Bytes beyond the monitor's memory read 0xFF, as from an unprogrammed part.
    ReadResult read(std::uint8_t segment, unsigned offset, std::span<std::uint8_t> out);

  private:
    bool attached_ = false;
    bool hung_ = false;
    DdcFault fault_ = DdcFault::None;
    std::optional<std::uint32_t> answersLeft_;
    std::vector<std::uint8_t> edid_;
};

// The adapter's end: addresses 0x50 and 0x30 on the serial master.
//
// E-DDC resets the segment pointer at every STOP. The master chains its transactions to the monitor with
// repeated STARTs and sends the STOP only when it addresses something else; so a segment that a separate
// access has set holds for the reads that follow it, and falls back to 0 with the next access to any other
// device.
class DdcPort final : public I2cDevice {
  public:
    explicit DdcPort(DdcBus& bus) : bus_(bus) {}

    I2cAnswer read(std::uint8_t address, std::uint8_t offset, usb::Time now) override;
    I2cAnswer write(std::uint8_t address, std::uint8_t offset, std::uint32_t data, usb::Time now) override;
    void stop() override { segment_ = 0; }
    void monitorChanged() { segment_ = 0; }

  private:
    DdcBus& bus_;
    std::uint8_t segment_ = 0;
};

} // namespace model
