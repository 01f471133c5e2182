#include "support/surface.h"

#include <algorithm>

namespace support {

Surface scale(const Surface& source, unsigned width, unsigned height) {
    if (source.width == width && source.height == height) {
        return source;
    }
    Surface result(width, height);
    for (unsigned y = 0; y < height; y++) {
        const std::span<const Pixel> from =
            source.row(static_cast<unsigned>(std::uint64_t{y} * source.height / height));
        for (unsigned x = 0; x < width; x++) {
            result.at(x, y) = from[std::uint64_t{x} * source.width / width];
        }
    }
    return result;
}

Surface center(const Surface& source, unsigned width, unsigned height) {
    Surface result(width, height);
    const unsigned columns = std::min(source.width, width);
    const unsigned rows = std::min(source.height, height);
    for (unsigned row = 0; row < rows; row++) {
        const std::span<const Pixel> from =
            source.row((source.height - rows) / 2 + row).subspan((source.width - columns) / 2, columns);
        std::ranges::copy(from, &result.at((width - columns) / 2, (height - rows) / 2 + row));
    }
    return result;
}

} // namespace support
