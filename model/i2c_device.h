// A device on the serial master's bus.
#pragma once

#include <cstdint>

#include "platform/usb/clock.h"

namespace model {

struct I2cAnswer {
    enum class Kind : std::uint8_t {
        Completed,
        NotAcknowledged, // no device has this address, or it refuses
        Hung,            // a line is held until the master's time-out
    };
    Kind kind = Kind::NotAcknowledged;
    std::uint32_t data = 0; // of a completed read, first byte lowest
    usb::Time busy = 0;     // what the device itself needs beyond the bits on the wire
};

// A transaction moves four bytes at `offset`. `address` is the 7-bit one: a device may have several.
class I2cDevice {
  public:
    virtual ~I2cDevice() = default;

    virtual I2cAnswer read(std::uint8_t address, std::uint8_t offset, usb::Time now) = 0;
    virtual I2cAnswer write(std::uint8_t address, std::uint8_t offset, std::uint32_t data, usb::Time now) = 0;

    // The master has ended its run of transactions with this device by a STOP: it addresses another one.
    virtual void stop() {}
};

} // namespace model
