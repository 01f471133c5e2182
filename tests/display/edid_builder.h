// EDIDs for tests, built piece by piece into a MONITOR_EDID.
#pragma once

#include "display/edid.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <vector>

namespace edid_test {

using Bytes = std::vector<std::uint8_t>;

struct Timing {
    unsigned clock = 0; // 10 kHz
    unsigned width = 0;
    unsigned horizontalBlanking = 0;
    unsigned height = 0;
    unsigned verticalBlanking = 0;
};

class Monitor {
  public:
    Monitor() : edid_(std::make_unique<MONITOR_EDID>()) {
        *edid_ = {};
        constexpr std::uint8_t header[8] = {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0};
        std::copy(std::begin(header), std::end(header), base());
        for (unsigned i = 0; i < 16; i++) {
            base()[38 + i] = 0x01;
        }
    }

    MONITOR_EDID* operator->() { return edid_.get(); }
    MONITOR_EDID* get() { return edid_.get(); }
    std::uint8_t* base() { return edid_->EdidBlocks[0]; }
    std::uint8_t* block(unsigned number) { return edid_->EdidBlocks[number]; }

    Monitor& extensions(unsigned count) {
        base()[126] = static_cast<std::uint8_t>(count);
        return *this;
    }

    Monitor& standard(unsigned entry, std::uint8_t first, std::uint8_t second) {
        base()[38 + 2 * entry] = first;
        base()[39 + 2 * entry] = second;
        return *this;
    }

    Monitor& detailed(unsigned slot, const Timing& timing) {
        std::uint8_t* bytes = base() + 54 + 18 * slot;
        bytes[0] = static_cast<std::uint8_t>(timing.clock);
        bytes[1] = static_cast<std::uint8_t>(timing.clock >> 8);
        bytes[2] = static_cast<std::uint8_t>(timing.width);
        bytes[3] = static_cast<std::uint8_t>(timing.horizontalBlanking);
        bytes[4] = static_cast<std::uint8_t>(timing.width >> 8 << 4 | timing.horizontalBlanking >> 8);
        bytes[5] = static_cast<std::uint8_t>(timing.height);
        bytes[6] = static_cast<std::uint8_t>(timing.verticalBlanking);
        bytes[7] = static_cast<std::uint8_t>(timing.height >> 8 << 4 | timing.verticalBlanking >> 8);
        for (unsigned i = 8; i < 18; i++) {
            bytes[i] = static_cast<std::uint8_t>(0xA0 + i);
        }
        return *this;
    }

    // A CEA-861 extension with these data blocks, followed by one detailed timing.
    Monitor& cea(unsigned number, const Bytes& dataBlocks, std::uint8_t revision = 3,
                 std::uint8_t flags = 0x40) {
        std::uint8_t* bytes = block(number);
        bytes[0] = 2;
        bytes[1] = revision;
        bytes[2] = static_cast<std::uint8_t>(4 + dataBlocks.size());
        bytes[3] = flags;
        std::copy(dataBlocks.begin(), dataBlocks.end(), bytes + 4);
        if (bytes[2] < 127) {
            bytes[bytes[2]] = 0x02;
        }
        return *this;
    }

    EDID_DETAILED_TIMING timing(unsigned slot) {
        EDID_DETAILED_TIMING timing;
        EDID_ReadDetailedTiming(edid_.get(), slot, &timing);
        return timing;
    }

    std::vector<std::array<ULONG, 3>> modes() {
        std::vector<std::array<ULONG, 3>> list;
        for (ULONG i = 0; i < edid_->MonitorModeCount; i++) {
            const MONITOR_MODE& mode = edid_->MonitorModes[i];
            list.push_back({mode.Width, mode.Height, mode.Refresh});
        }
        return list;
    }

    std::uint8_t sum() { return std::accumulate(base(), base() + EDID_BLOCK_SIZE, std::uint8_t{0}); }

  private:
    std::unique_ptr<MONITOR_EDID> edid_;
};

// Data blocks of a CEA extension.
inline Bytes dataBlock(unsigned tag, std::initializer_list<std::uint8_t> payload) {
    Bytes bytes = {static_cast<std::uint8_t>(tag << 5 | payload.size())};
    bytes.insert(bytes.end(), payload);
    return bytes;
}
inline Bytes video(std::initializer_list<std::uint8_t> codes) {
    return dataBlock(2, codes);
}
inline Bytes hdmiVendor() {
    return dataBlock(3, {0x03, 0x0C, 0x00, 0x10, 0x00});
}

inline Bytes operator+(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace edid_test
