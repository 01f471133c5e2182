#include "model/picture.h"

#include <bit>
#include <cstring>

namespace model {

namespace {

// Widens the low `bits` bits of `value` to 8 by repeating them from the top.
constexpr std::uint32_t widen(std::uint32_t value, unsigned bits) {
    std::uint32_t wide = value << (8 - bits);
    for (unsigned have = bits; have < 8; have += bits) {
        wide |= wide >> have;
    }
    return wide & 0xFF;
}

constexpr std::uint32_t compose(std::uint32_t red, std::uint32_t green, std::uint32_t blue) {
    return 0xFF000000u | red << 16 | green << 8 | blue;
}

static_assert(widen(0x1F, 5) == 0xFF && widen(0x10, 5) == 0x84 && widen(2, 2) == 0xAA &&
              widen(0x40, 7) == 0x81);

} // namespace

std::string_view name(PixelFormat format) {
    switch (format) {
    case PixelFormat::Bgr24:
        return "BGR24";
    case PixelFormat::Bgr24Red7:
        return "BGR24 with 7 bits of red";
    case PixelFormat::Rgb565:
        return "RGB565";
    case PixelFormat::Rgb555:
        return "RGB555";
    case PixelFormat::Rgb8:
        return "RGB8";
    }
    return "unknown";
}

std::uint32_t toBgrx32(PixelFormat format, const std::uint8_t* pixel) {
    const auto word = [pixel] { return static_cast<std::uint32_t>(pixel[0] | pixel[1] << 8); };
    switch (format) {
    case PixelFormat::Bgr24:
        return compose(pixel[2], pixel[1], pixel[0]);
    case PixelFormat::Bgr24Red7:
        return compose(widen(pixel[2] >> 1, 7), pixel[1], pixel[0]);
    case PixelFormat::Rgb565:
        return compose(widen(word() >> 11, 5), widen(word() >> 5 & 0x3F, 6), widen(word() & 0x1F, 5));
    case PixelFormat::Rgb555:
        return compose(widen(word() >> 10 & 0x1F, 5), widen(word() >> 5 & 0x1F, 5), widen(word() & 0x1F, 5));
    case PixelFormat::Rgb8:
        return compose(widen(pixel[0] >> 6, 2), widen(pixel[0] >> 3 & 7, 3), widen(pixel[0] & 7, 3));
    }
    return 0;
}

std::vector<std::uint8_t> toBgrx32(const RawFrame& frame) {
    const std::uint32_t step = bytesPerPixel(frame.format);
    const std::size_t count = frame.pixels.size() / step;
    std::vector<std::uint8_t> picture(count * 4);
    for (std::size_t i = 0; i < count; i++) {
        const std::uint32_t pixel = toBgrx32(frame.format, frame.pixels.data() + i * step);
        for (unsigned byte = 0; byte < 4; byte++) {
            picture[i * 4 + byte] = static_cast<std::uint8_t>(pixel >> 8 * byte);
        }
    }
    return picture;
}

std::uint64_t checksum(std::span<const std::uint8_t> bytes) {
    // Each lane multiplies by an odd constant (the fractional digits of the golden ratio) after taking in
    // eight bytes; four lanes keep the multiplier busy.
    constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
    std::uint64_t lane[4] = {1, 2, 3, 4};
    const auto takeIn = [](std::uint64_t state, std::uint64_t word) {
        return std::rotl((state ^ word) * kMultiplier, 29);
    };
    const std::uint8_t* at = bytes.data();
    std::size_t left = bytes.size();
    for (; left >= 32; left -= 32, at += 32) {
        std::uint64_t words[4];
        std::memcpy(words, at, 32);
        for (unsigned i = 0; i < 4; i++) {
            lane[i] = takeIn(lane[i], words[i]);
        }
    }
    for (unsigned i = 0; left > 0; i++) {
        std::uint64_t word = 0;
        const std::size_t step = left < 8 ? left : 8;
        std::memcpy(&word, at, step);
        lane[i] = takeIn(lane[i], word);
        at += step;
        left -= step;
    }
    std::uint64_t result = bytes.size();
    for (const std::uint64_t state : lane) {
        result = takeIn(result ^ state >> 32, state);
    }
    return result;
}

} // namespace model
