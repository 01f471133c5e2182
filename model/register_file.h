// The adapter's 32-bit registers as plain storage: which exist, and what they hold at power-on. The effects
// of a write are implemented by the board.
#pragma once

#include <array>
#include <cstdint>
#include <utility>

#include "model/registers.h"

namespace model {

class RegisterFile {
  public:
    bool has(std::uint16_t offset) const { return find(offset) != nullptr; }

    // The offset must exist.
    std::uint32_t get(std::uint16_t offset) const { return *find(offset); }
    void set(std::uint16_t offset, std::uint32_t value) { *const_cast<std::uint32_t*>(find(offset)) = value; }

    bool any(std::uint16_t offset, std::uint32_t mask) const { return (get(offset) & mask) != 0; }
    bool all(std::uint16_t offset, std::uint32_t mask) const { return (get(offset) & mask) == mask; }

  private:
    const std::uint32_t* find(std::uint16_t offset) const {
        for (const auto& [at, value] : words_) {
            if (at == offset) {
                return &value;
            }
        }
        return nullptr;
    }

    std::array<std::pair<std::uint16_t, std::uint32_t>, 18> words_{{
        {reg::kOutput, reg::kOutputTimingHold},
        {reg::kStandby, 0},
        {reg::kStatus, 0},
        {reg::kFormat, 0},
        {reg::kHorizontalSize, 0},
        {reg::kHorizontalSync, 0},
        {reg::kVerticalSize, 0},
        {reg::kVerticalSync, 0},
        {reg::kOrigin, 0x00100000},
        {reg::kSerialControl, 0},
        {reg::kSerialReadData, 0},
        {reg::kSerialWriteData, 0},
        {reg::kPll, 0},
        {reg::kControl, 0},
        {reg::kAnalog, 0xF0000000},
        {reg::kScanControl, 0},
        {reg::kPowerDown, 1u << 17},
        {reg::kSpare, 1u << 10},
    }};
};

} // namespace model
