// The HDMI transmitter on the adapter's I2C bus: a banked register file with the functions behind it. Its
// registers and what they do: `model/registers.h`, namespace `tx`.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>

#include "model/ddc.h"
#include "model/faults.h"
#include "model/i2c_device.h"
#include "model/transmitter_report.h"
#include "model/violation.h"

namespace model {

// The picture signal that the adapter feeds into the transmitter.
struct VideoInput {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    double pixelClock = 0; // Hz, 0 when there is none
};

class Transmitter final : public I2cDevice {
  public:
    static constexpr usb::Time kResetTime = 100 * usb::kMillisecond;
    static constexpr usb::Time kAbortTime = 60 * usb::kMillisecond;
    static constexpr usb::Time kDdcBit = 10 * usb::kMicrosecond;

    Transmitter(ViolationLog& violations, DdcBus& ddc);

    I2cAnswer read(std::uint8_t address, std::uint8_t offset, usb::Time now) override;
    I2cAnswer write(std::uint8_t address, std::uint8_t offset, std::uint32_t data, usb::Time now) override;

    void setInput(const VideoInput& input) { input_ = input; }
    void setDeaf(bool deaf) { deaf_ = deaf; }
    void setFault(TransmitterFault fault) { fault_ = fault; }
    void setSpdifLock(std::optional<usb::Time> delay) { spdifLockDelay_ = delay; }

    // Why no picture leaves the transmitter; empty when one does.
    std::string_view darkReason() const;
    TransmitterReport report(usb::Time now) const;
    std::uint8_t peek(unsigned bank, std::uint8_t reg) const { return registers_[bank & 1][reg]; }

  private:
    std::uint8_t bank0(std::uint8_t reg) const { return registers_[0][reg]; }
    std::uint8_t bank1(std::uint8_t reg) const { return registers_[1][reg]; }
    bool powered() const;
    bool bandFits() const;
    bool spdifLocked(usb::Time now) const;
    bool ddcBusy(usb::Time now) const { return now < ddcEnd_; }

    // Whether the group exists in the selected bank (and for a write, has power); records a violation if not.
    bool mayAccess(std::uint8_t group, bool write, usb::Time now);
    std::uint8_t readByte(unsigned bank, std::uint8_t reg, usb::Time now);
    void writeByte(unsigned bank, std::uint8_t reg, std::uint8_t value, usb::Time now);
    void writeFunction(std::uint8_t reg, std::uint8_t value, usb::Time now);
    void resetFunctions();

    void runDdcCommand(std::uint8_t command, usb::Time now);
    void startDdcRead(usb::Time now);
    std::uint8_t ddcStatus(usb::Time now) const;

    void unlock(std::uint8_t key);
    void checkVideoPath(usb::Time now);
    void checkAvi(usb::Time now);
    void checkAudio(usb::Time now);
    AviInfoFrame aviInfoFrame() const;
    AudioInfoFrame audioInfoFrame() const;

    ViolationLog& violations_;
    DdcBus& ddc_;
    std::array<std::array<std::uint8_t, 256>, 2> registers_{};
    VideoInput input_;
    bool deaf_ = false;
    TransmitterFault fault_ = TransmitterFault::None;
    usb::Time answersFrom_ = 0; // a full reset is under way until then

    std::deque<std::uint8_t> ddcFifo_;
    std::uint8_t ddcResult_ = 0; // status bits once the command has ended
    usb::Time ddcEnd_ = 0;
    bool ddcHung_ = false; // the last read never ended

    std::optional<usb::Time> spdifStart_;
    std::optional<usb::Time> spdifLockDelay_ = 20 * usb::kMillisecond;
    unsigned keysSeen_ = 0; // 2: the protected bits are open
    bool aviChanged_ = true;
    bool audioChanged_ = true;
};

} // namespace model
