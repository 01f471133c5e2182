// A picture of the desktop.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace support {

static_assert(std::endian::native == std::endian::little, "pixels are read as little-endian words");

// 0xXXRRGGBB: in memory blue, green, red and an unused byte (BGRX32).
using Pixel = std::uint32_t;

constexpr unsigned kMaxSurfaceSide = 8192;

struct Surface {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<Pixel> pixels; // rows from top to bottom without padding

    Surface() = default;
    Surface(unsigned surfaceWidth, unsigned surfaceHeight, Pixel color = 0xFF000000)
        : width(surfaceWidth), height(surfaceHeight),
          pixels(std::size_t{surfaceWidth} * surfaceHeight, color) {}

    Pixel& at(unsigned x, unsigned y) { return pixels[std::size_t{y} * width + x]; }
    Pixel at(unsigned x, unsigned y) const { return pixels[std::size_t{y} * width + x]; }
    std::span<const Pixel> row(unsigned y) const { return {&pixels[std::size_t{y} * width], width}; }
};

constexpr Pixel makePixel(unsigned red, unsigned green, unsigned blue) {
    return 0xFF000000u | (red << 16) | (green << 8) | blue;
}

// The picture in another size, by nearest neighbor.
Surface scale(const Surface& source, unsigned width, unsigned height);

// The picture in the center of a black frame of the given size, clipped where it does not fit.
Surface center(const Surface& source, unsigned width, unsigned height);

} // namespace support
