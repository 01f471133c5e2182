#include "model/run_stream.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace model {

namespace {

template <unsigned Unit>
std::uint32_t loadUnit(const std::uint8_t* at) {
    std::uint32_t value = at[0];
    if constexpr (Unit > 1) {
        value |= static_cast<std::uint32_t>(at[1]) << 8;
    }
    if constexpr (Unit > 2) {
        value |= static_cast<std::uint32_t>(at[2]) << 16;
    }
    return value;
}

// The pixel's bytes, from the literal unit without its flag.
template <unsigned Unit>
void storePixel(std::uint8_t* at, std::uint32_t literal) {
    if constexpr (Unit == 1) {
        at[0] = static_cast<std::uint8_t>(literal << 1);
    } else {
        at[0] = static_cast<std::uint8_t>(literal);
        at[1] = static_cast<std::uint8_t>(literal >> 8);
    }
    if constexpr (Unit == 3) {
        at[2] = static_cast<std::uint8_t>(literal >> 16 << 1);
    }
}

// Repeats the pixel in the `Unit` bytes before `at` until `bytes` bytes are written; `room` is what may be
// overwritten. Short runs are by far the most frequent: they go in blocks of eight pixels made in registers,
// the last of which may reach into the bytes that the next unit writes. Long ones copy what is there already,
// twice as much with each step.
template <unsigned Unit>
void repeatPixel(std::uint8_t* at, std::size_t bytes, std::size_t room) {
    constexpr std::size_t kBlock = 8 * Unit;
    constexpr std::size_t kShort = 8 * kBlock;
    if (bytes <= kShort && bytes + kBlock <= room) {
        const std::uint64_t pixel = loadUnit<Unit>(at - Unit);
        std::uint64_t block[Unit];
        for (unsigned word = 0; word < Unit; word++) {
            // The first whole pixel of this word begins `skip` bits into it; what is before belongs to its
            // tail.
            const unsigned skip = (Unit - word * 8 % Unit) % Unit * 8;
            block[word] = skip == 0 ? 0 : pixel >> (8 * Unit - skip);
            for (unsigned bit = skip; bit < 64; bit += 8 * Unit) {
                block[word] |= pixel << bit;
            }
        }
        for (std::size_t done = 0; done < bytes; done += kBlock) {
            std::memcpy(at + done, block, kBlock);
        }
        return;
    }
    const std::uint8_t* const pixel = at - Unit;
    for (std::size_t have = Unit; bytes > 0;) {
        const std::size_t step = std::min(have, bytes);
        std::memcpy(at, pixel, step);
        at += step;
        bytes -= step;
        have += step;
    }
}

template <unsigned Unit>
std::string expand(std::span<const std::uint8_t> stream, std::span<std::uint8_t> pixels) {
    constexpr std::uint32_t kLiteral = 1u << (8 * Unit - 1);
    const std::uint8_t* in = stream.data();
    const std::uint8_t* const inEnd = in + stream.size();
    std::uint8_t* out = pixels.data();
    std::uint8_t* const outEnd = out + pixels.size() / Unit * Unit;
    const auto position = [&] { return in - stream.data(); };
    const auto done = [&] { return static_cast<std::size_t>(out - pixels.data()) / Unit; };

    while (out != outEnd) {
        if (static_cast<std::size_t>(inEnd - in) < Unit) {
            return fmt::format("the stream of {} bytes ends after {} of {} pixels", stream.size(), done(),
                               pixels.size() / Unit);
        }
        const std::uint32_t value = loadUnit<Unit>(in);
        if ((value & kLiteral) != 0) {
            storePixel<Unit>(out, value & ~kLiteral);
            out += Unit;
        } else {
            if (out == pixels.data()) {
                return fmt::format("a count of {} stands before any literal", value);
            }
            if (value == 0) {
                return fmt::format("a count of 0 at byte {}", position());
            }
            const std::size_t room = static_cast<std::size_t>(outEnd - out) / Unit;
            if (value > room) {
                return fmt::format("a count of {} at byte {} runs past the frame, which has room for {}",
                                   value, position(), room);
            }
            repeatPixel<Unit>(out, std::size_t{value} * Unit, room * Unit);
            out += std::size_t{value} * Unit;
        }
        in += Unit;
    }
    const std::size_t rest = static_cast<std::size_t>(inEnd - in);
    if (rest > 3 || (rest > 0 && stream.size() % 4 != 0)) {
        return fmt::format("{} bytes follow the last pixel of a stream of {}", rest, stream.size());
    }
    return {};
}

} // namespace

std::string expandRuns(std::span<const std::uint8_t> stream, unsigned unit, std::span<std::uint8_t> pixels) {
    switch (unit) {
    case 1:
        return expand<1>(stream, pixels);
    case 2:
        return expand<2>(stream, pixels);
    case 3:
        return expand<3>(stream, pixels);
    default:
        return fmt::format("there are no units of {} bytes", unit);
    }
}

} // namespace model
