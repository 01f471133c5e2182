// Decodes any bytes with the adapter's run expander: it writes exactly the frame or reports what is wrong,
// and it agrees with a decoder that expands one pixel at a time.
//
// Input: byte 0 picks the unit (1, 2 or 3 bytes), bytes 1 and 2 the frame's pixels, the rest is the stream.
#include "fuzz/require.h"
#include "model/run_stream.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// The frame, or nothing for an invalid stream.
std::optional<Bytes> expandByPixel(std::span<const std::uint8_t> stream, unsigned unit, std::size_t pixels) {
    Bytes frame(pixels * unit);
    Bytes pixel;
    std::size_t at = 0;
    std::size_t done = 0;
    while (done < pixels) {
        if (at + unit > stream.size()) {
            return std::nullopt;
        }
        const std::span<const std::uint8_t> bytes = stream.subspan(at, unit);
        at += unit;
        const bool literal = (bytes.back() & 0x80) != 0;
        std::size_t count = 1;
        if (literal) {
            pixel.assign(bytes.begin(), bytes.end());
            // With 8 and 24 bits the flag replaces the lowest bit of its byte, with 16 bits an unused bit.
            pixel.back() = static_cast<std::uint8_t>(unit == 2 ? pixel.back() & 0x7F : pixel.back() << 1);
        } else {
            count = 0;
            for (unsigned i = 0; i < unit; i++) {
                count |= static_cast<std::size_t>(bytes[i]) << 8 * i;
            }
        }
        if (pixel.empty() || count == 0 || count > pixels - done) {
            return std::nullopt;
        }
        for (; count > 0; count--, done++) {
            std::memcpy(&frame[done * unit], pixel.data(), unit);
        }
    }
    const std::size_t fill = stream.size() - at;
    if (fill > 3 || (fill > 0 && stream.size() % 4 != 0)) {
        return std::nullopt;
    }
    return frame;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) {
        return 0;
    }
    constexpr std::uint8_t kCanary = 0xA5;
    constexpr std::size_t kMargin = 64;
    const unsigned unit = 1 + data[0] % 3;
    const std::size_t pixels = data[1] | data[2] << 8;
    // Exactly as large as the stream, so that the sanitizer sees a read past its end.
    const Bytes stream(data + 3, data + size);
    Bytes frame(pixels * unit + 2 * kMargin, kCanary);
    const std::span<std::uint8_t> inner = std::span(frame).subspan(kMargin, pixels * unit);

    const std::string problem = model::expandRuns(stream, unit, inner);

    REQUIRE(std::ranges::count(std::span(frame).first(kMargin), kCanary) == kMargin);
    REQUIRE(std::ranges::count(std::span(frame).last(kMargin), kCanary) == kMargin);
    const std::optional<Bytes> expected = expandByPixel(stream, unit, pixels);
    REQUIRE(problem.empty() == expected.has_value());
    REQUIRE(!expected || std::ranges::equal(*expected, inner));
    return 0;
}
