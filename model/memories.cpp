#include "model/memories.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace model {

void MemoryCells::load(std::span<const std::uint8_t> contents) {
    if (contents.size() > cells_.size()) {
        throw std::length_error(
            fmt::format("{} bytes do not fit a memory of {}", contents.size(), cells_.size()));
    }
    std::copy(contents.begin(), contents.end(), cells_.begin());
}

void MemoryCells::set(std::size_t address, std::uint8_t value) {
    address %= cells_.size();
    const auto corrupt = corrupt_.find(static_cast<std::uint32_t>(address));
    if (corrupt != corrupt_.end() && corrupt->second > 0) {
        corrupt->second--;
        value ^= 1;
    }
    cells_[address] = value;
}

void MemoryCells::erase(std::size_t first, std::size_t count) {
    first %= cells_.size();
    std::fill_n(cells_.begin() + static_cast<std::ptrdiff_t>(first), std::min(count, cells_.size() - first),
                0xFF);
}

std::uint32_t MemoryCells::word(std::size_t address) const {
    std::uint32_t value = 0;
    for (unsigned i = 0; i < 4; i++) {
        value |= static_cast<std::uint32_t>(get(address + i)) << 8 * i;
    }
    return value;
}

I2cAnswer Eeprom::read(std::uint8_t, std::uint8_t offset, usb::Time) {
    return {I2cAnswer::Kind::Completed, cells.word(offset), 0};
}

I2cAnswer Eeprom::write(std::uint8_t, std::uint8_t offset, std::uint32_t data, usb::Time) {
    if (cells.refusesWrites()) {
        return {};
    }
    const std::size_t page = offset / kPage * kPage;
    for (unsigned i = 0; i < 4; i++) {
        cells.set(page + (offset + i) % kPage, static_cast<std::uint8_t>(data >> 8 * i));
    }
    return {I2cAnswer::Kind::Completed, 0, kWriteCycle};
}

I2cAnswer SpiFlash::read(std::uint32_t address) const {
    return {I2cAnswer::Kind::Completed, cells.word(address), 0};
}

I2cAnswer SpiFlash::write(std::uint32_t address, std::uint32_t data, bool eraseFirst) {
    if (cells.refusesWrites()) {
        return {};
    }
    if (eraseFirst) {
        cells.erase(address / kSector * kSector, kSector);
    }
    const std::size_t page = address / kPage * kPage;
    for (unsigned i = 0; i < 4; i++) {
        const std::size_t at = page + (address + i) % kPage;
        cells.set(at, static_cast<std::uint8_t>(cells.get(at) & data >> 8 * i));
    }
    return {I2cAnswer::Kind::Completed, 0, kProgramTime + (eraseFirst ? kEraseTime : 0)};
}

} // namespace model
