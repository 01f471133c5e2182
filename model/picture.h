// Pixels as the adapter holds them and as the monitor shows them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "platform/usb/clock.h"

namespace model {

// The format of the pixels in the adapter's frame memory. 16-bit pixels are stored little-endian.
enum class PixelFormat : std::uint8_t {
    Bgr24,     // 3 bytes: blue, green, red
    Bgr24Red7, // the same from a run stream, whose literals carry no lowest red bit: it reads 0
    Rgb565,    // 2 bytes: red in bits 15..11, green in 10..5, blue in 4..0
    Rgb555,    // 2 bytes: red in bits 14..10, green in 9..5, blue in 4..0; bit 15 is 0
    Rgb8,      // 1 byte: red in bits 7..6, green in 5..3, blue in 2..0; blue's lowest bit reads 0 after a run
               // stream
};

constexpr std::uint32_t bytesPerPixel(PixelFormat format) {
    return format == PixelFormat::Rgb8                                      ? 1
           : format == PixelFormat::Rgb565 || format == PixelFormat::Rgb555 ? 2
                                                                            : 3;
}

std::string_view name(PixelFormat format);

// A frame in frame memory: rows from top to bottom without padding.
struct RawFrame {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    PixelFormat format = PixelFormat::Bgr24;
    std::vector<std::uint8_t> pixels;
};

// What is on the screen: BGRX32 (blue, green, red, 0xFF), rows from top to bottom without padding.
struct Picture {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> pixels;
    std::uint64_t frameNumber = 0; // counts the frames received since the adapter was switched on, from 1
    usb::Time time = 0;            // when its frame was complete
    std::uint64_t checksum = 0;    // of the frame's raw pixels, as `checksum` below gives it
};

// One pixel as the monitor shows it, from `bytesPerPixel(format)` bytes: 0xFFRRGGBB, that is BGRX32 when
// stored little-endian. A channel of fewer than 8 bits is widened by repeating its bits from the top, so that
// black stays black and white white. The red of `Bgr24Red7` has 7 bits; the blue of `Rgb8` always counts
// as 3.
std::uint32_t toBgrx32(PixelFormat format, const std::uint8_t* pixel);

std::vector<std::uint8_t> toBgrx32(const RawFrame& frame);

// 64-bit hash (multiply and fold, four lanes): equal bytes give equal values on every machine. Not for
// security.
std::uint64_t checksum(std::span<const std::uint8_t> bytes);

} // namespace model
