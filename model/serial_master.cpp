#include "model/serial_master.h"

#include <fmt/format.h>

#include "model/registers.h"

namespace model {

namespace {
using Kind = I2cAnswer::Kind;
}

void SerialMaster::start(std::uint32_t command, std::uint32_t writeData, usb::Time now) {
    command &= reg::kSerialCommandMask;
    if (busy(now)) {
        // A rewrite of the command under way comes from a change of the power bits beside it.
        if (command != command_) {
            violations_.add(
                now, ViolationKind::SerialBusy,
                fmt::format("command 0x{:05X} was written while 0x{:05X} was under way", command, command_));
        }
        return;
    }
    command_ = command;
    previousReadData_ = readData_;
    const bool flash = (command & reg::kSerialFlash) != 0;
    const bool read = (command & reg::kSerialRead) != 0;
    I2cAnswer answer;
    if (deaf_) {
        answer.kind = Kind::Hung;
    } else {
        answer = flash ? runFlash(command, writeData) : runI2c(command, writeData, now);
    }

    completes_ = answer.kind == Kind::Completed;
    switch (answer.kind) {
    case Kind::Completed:
        end_ = now + answer.busy + (flash ? kSpiWord : read ? kI2cRead : kI2cWrite);
        if (read) {
            readData_ = answer.data;
        }
        break;
    case Kind::NotAcknowledged:
        end_ = now + kI2cRefused;
        break;
    case Kind::Hung:
        end_ = now + kTimeout;
        break;
    }
}

void SerialMaster::refuse() {
    completes_ = false;
}

I2cAnswer SerialMaster::runI2c(std::uint32_t command, std::uint32_t writeData, usb::Time now) {
    const auto address = static_cast<std::uint8_t>(command & 0x7F);
    const auto offset = static_cast<std::uint8_t>(command >> 8);
    I2cDevice* addressed = nullptr;
    for (const auto& [at, device] : devices_) {
        if (at == address) {
            addressed = device;
        }
    }
    for (const auto& [at, device] : devices_) {
        if (device != addressed) {
            device->stop();
        }
    }
    if (addressed == nullptr) {
        return {};
    }
    return (command & reg::kSerialRead) != 0 ? addressed->read(address, offset, now)
                                             : addressed->write(address, offset, writeData, now);
}

I2cAnswer SerialMaster::runFlash(std::uint32_t command, std::uint32_t writeData) {
    for (const auto& [at, device] : devices_) {
        device->stop();
    }
    const std::uint32_t address = (command >> 8 & 0xFF) | (command & 0x7F) << 8;
    if ((command & reg::kSerialRead) != 0) {
        return flash_.read(address);
    }
    return flash_.write(address, writeData, (command & reg::kSerialFirstWrite) != 0);
}

} // namespace model
