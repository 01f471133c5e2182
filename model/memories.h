// The adapter's two configuration memories.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "model/i2c_device.h"

namespace model {

// Contents and write faults, shared by both memories.
class MemoryCells {
  public:
    explicit MemoryCells(std::size_t size) : cells_(size, 0xFF) {}

    const std::vector<std::uint8_t>& contents() const { return cells_; }
    void load(std::span<const std::uint8_t> contents); // throws std::length_error when it is too long
    void corruptWrites(std::uint32_t address, unsigned times) { corrupt_[address] = times; }
    void refuseWrites(bool refuse) { refuse_ = refuse; }

    bool refusesWrites() const { return refuse_; }
    std::uint8_t get(std::size_t address) const { return cells_[address % cells_.size()]; }
    void set(std::size_t address, std::uint8_t value);
    void erase(std::size_t first, std::size_t count);
    std::uint32_t word(std::size_t address) const; // four bytes, the first lowest, wrapping at the end

  private:
    std::vector<std::uint8_t> cells_;
    std::map<std::uint32_t, unsigned> corrupt_; // how many more writes of that byte go wrong
    bool refuse_ = false;
};

// Serial EEPROM of 256 bytes at I2C address 0x54, pages of 16: a write that runs over the end of its page
// goes on at the page's start. The master waits for the end of the write cycle by polling for the
// acknowledge.
class Eeprom final : public I2cDevice {
  public:
    static constexpr std::size_t kSize = 256;
    static constexpr std::size_t kPage = 16;
    static constexpr usb::Time kWriteCycle = 5 * usb::kMillisecond;

    MemoryCells cells{kSize};

    I2cAnswer read(std::uint8_t address, std::uint8_t offset, usb::Time now) override;
    I2cAnswer write(std::uint8_t address, std::uint8_t offset, std::uint32_t data, usb::Time now) override;
};

// SPI flash of 32 KB: sectors of 4 KB to erase, pages of 256 bytes to program. Programming only clears bits,
// so what was not erased comes out as the AND of old and new. The first-write flag erases the addressed
// sector.
class SpiFlash {
  public:
    static constexpr std::size_t kSize = 32768;
    static constexpr std::size_t kSector = 4096;
    static constexpr std::size_t kPage = 256;
    static constexpr usb::Time kEraseTime = 45 * usb::kMillisecond;
    static constexpr usb::Time kProgramTime = usb::kMillisecond / 2;

    MemoryCells cells{kSize};

    I2cAnswer read(std::uint32_t address) const;
    I2cAnswer write(std::uint32_t address, std::uint32_t data, bool eraseFirst);
};

} // namespace model
