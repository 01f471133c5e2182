// The adapter's serial master: one 32-bit word per command, on I2C or on the SPI flash.
//
// A command takes its real time: the bits on the wire (I2C at 100 kHz, SPI at 10 MHz) and what the device
// needs. Its effect on the device begins at its start; its end is only a time that the host's polls are
// compared with.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "model/i2c_device.h"
#include "model/memories.h"
#include "model/violation.h"

namespace model {

class SerialMaster {
  public:
    static constexpr usb::Time kI2cBit = 10 * usb::kMicrosecond;
    static constexpr usb::Time kI2cRead =
        65 * kI2cBit; // START, address, offset, START, address, 4 bytes, STOP
    static constexpr usb::Time kI2cWrite = 56 * kI2cBit; // START, address, offset, 4 bytes, STOP
    static constexpr usb::Time kI2cRefused = 11 * kI2cBit;
    static constexpr usb::Time kSpiWord = 8 * usb::kMicrosecond;
    static constexpr usb::Time kTimeout = 25 * usb::kMillisecond;

    SerialMaster(ViolationLog& violations, SpiFlash& flash) : violations_(violations), flash_(flash) {}

    void connect(std::uint8_t address, I2cDevice& device) { devices_.emplace_back(address, &device); }
    void setDeaf(bool deaf) { deaf_ = deaf; }

    // `command` is the register word of `reg::kSerialControl`, of which only the command bits are used.
    void start(std::uint32_t command, std::uint32_t writeData, usb::Time now);
    // A command to a master without power: it never completes.
    void refuse();

    // Bit 31 of the control register. Set at power-on.
    bool done(usb::Time now) const { return completes_ && now >= end_; }
    std::uint32_t readData(usb::Time now) const { return done(now) ? readData_ : previousReadData_; }

  private:
    bool busy(usb::Time now) const { return now < end_; }
    I2cAnswer runI2c(std::uint32_t command, std::uint32_t writeData, usb::Time now);
    I2cAnswer runFlash(std::uint32_t command, std::uint32_t writeData);

    ViolationLog& violations_;
    SpiFlash& flash_;
    std::vector<std::pair<std::uint8_t, I2cDevice*>> devices_;
    bool deaf_ = false;
    std::uint32_t command_ = 0; // bits 0..17 of the last one
    bool completes_ = true;
    usb::Time end_ = 0;
    std::uint32_t readData_ = 0;
    std::uint32_t previousReadData_ = 0;
};

} // namespace model
