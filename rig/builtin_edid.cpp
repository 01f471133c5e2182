#include "rig/builtin_edid.h"

#include "device/client_abi.h"

#include <array>
#include <numeric>
#include <string_view>

namespace rig {

namespace {

using Block = std::array<std::uint8_t, EDID_BLOCK_SIZE>;

// A detailed timing (VESA E-EDID, section 3.10.2).
struct DetailedTiming {
    unsigned clock10kHz;
    unsigned width, horizontalBlank, horizontalFront, horizontalSync;
    unsigned height, verticalBlank, verticalFront, verticalSync;
    unsigned widthMm, heightMm;
};

constexpr DetailedTiming k1080p = {14850, 1920, 280, 88, 44, 1080, 45, 4, 5, 531, 299};
constexpr DetailedTiming k720p = {7425, 1280, 370, 110, 40, 720, 30, 5, 5, 531, 299};

void put(Block& block, std::size_t at, std::initializer_list<unsigned> bytes) {
    for (const unsigned byte : bytes) {
        block[at++] = static_cast<std::uint8_t>(byte);
    }
}

void putTiming(Block& block, std::size_t at, const DetailedTiming& t) {
    constexpr unsigned kDigitalBothPolaritiesPositive = 0x1E;
    put(block, at,
        {t.clock10kHz & 0xFF, t.clock10kHz >> 8, t.width & 0xFF, t.horizontalBlank & 0xFF,
         (t.width >> 8) << 4 | t.horizontalBlank >> 8, t.height & 0xFF, t.verticalBlank & 0xFF,
         (t.height >> 8) << 4 | t.verticalBlank >> 8, t.horizontalFront, t.horizontalSync,
         t.verticalFront << 4 | t.verticalSync, 0, t.widthMm & 0xFF, t.heightMm & 0xFF,
         (t.widthMm >> 8) << 4 | t.heightMm >> 8, 0, 0, kDigitalBothPolaritiesPositive});
}

// A display descriptor with text: 13 characters, ended by a line feed and padded with spaces.
void putText(Block& block, std::size_t at, unsigned tag, std::string_view text) {
    put(block, at, {0, 0, 0, tag, 0});
    for (std::size_t i = 0; i < 13; i++) {
        const char character = i < text.size() ? text[i] : i == text.size() ? '\n' : ' ';
        block[at + 5 + i] = static_cast<std::uint8_t>(character);
    }
}

void putChecksum(Block& block) {
    const unsigned sum = std::accumulate(block.begin(), block.end() - 1, 0u);
    block.back() = static_cast<std::uint8_t>(0u - sum);
}

// A standard timing at 60 Hz; `aspect` as coded: 0 16:10, 1 4:3, 2 5:4, 3 16:9.
unsigned standardWidth(unsigned width) {
    return width / 8 - 31;
}

Block baseBlock() {
    Block block{};
    put(block, 0, {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00});
    put(block, 8, {0x52, 0x74, 0x01, 0x00, 0, 0, 0, 0}); // "TST", product 1
    put(block, 16, {1, 34, 1, 3});                       // week 1 of 2024, EDID 1.3
    // Digital, 53 x 30 cm, gamma 2.2; RGB, sRGB, the first timing is preferred.
    put(block, 20, {0x80, 53, 30, 120, 0x0E});
    put(block, 25, {0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54}); // sRGB primaries
    put(block, 35, {0x21, 0x08, 0x00}); // 640x480, 800x600 and 1024x768 at 60 Hz
    put(block, 38,
        {0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01});
    put(block, 38,
        {standardWidth(1920), 3u << 6, standardWidth(1680), 0u << 6, standardWidth(1440), 0u << 6,
         standardWidth(1280), 2u << 6, standardWidth(1280), 0u << 6, standardWidth(1280), 3u << 6});
    putTiming(block, 54, k1080p);
    putText(block, 72, 0xFC, "usbdisplay");
    put(block, 90, {0, 0, 0, 0xFD, 0, 50, 76, 30, 83, 17, 0, 0x0A, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20});
    putText(block, 108, 0xFF, "0001");
    block[126] = 1;
    putChecksum(block);
    return block;
}

Block ceaBlock() {
    constexpr unsigned kVideo = 2u << 5;
    constexpr unsigned kAudio = 1u << 5;
    constexpr unsigned kVendor = 3u << 5;
    constexpr unsigned kSpeakers = 4u << 5;
    constexpr unsigned kExtended = 7u << 5;
    constexpr unsigned kTimings = 26;
    Block block{};
    put(block, 4, {kVideo | 4, 16, 4, 3, 1});      // 1080p60, 720p60, 480p60 wide, VGA
    put(block, 9, {kAudio | 3, 0x09, 0x07, 0x07}); // LPCM, 2 channels, 32 to 48 kHz, 16 to 24 bits
    put(block, 13, {kSpeakers | 3, 0x01, 0, 0});   // front left and right
    put(block, 17, {kVendor | 5, 0x03, 0x0C, 0x00, 0x10, 0x00}); // HDMI, physical address 1.0.0.0
    put(block, 23, {kExtended | 2, 0x00, 0x4A}); // video capability: selectable RGB range, underscanned
    put(block, 0, {0x02, 0x03, kTimings, 0xC1}); // CEA-861: underscan, basic audio, one native timing
    putTiming(block, kTimings, k720p);
    putChecksum(block);
    return block;
}

} // namespace

std::vector<std::uint8_t> builtinEdid() {
    std::vector<std::uint8_t> edid;
    for (const Block& block : {baseBlock(), ceaBlock()}) {
        edid.insert(edid.end(), block.begin(), block.end());
    }
    return edid;
}

} // namespace rig
