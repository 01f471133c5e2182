#include "support/parse.h"

#include "support/input_error.h"
#include "support/surface.h"

#include <charconv>
#include <fmt/format.h>

namespace support {

namespace {

// True when all of `text` is a number.
template <typename Number, typename... Format>
bool readNumber(std::string_view text, Number& value, Format... format) {
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, format...);
    return error == std::errc() && rest == end;
}

} // namespace

std::uint64_t parseNumber(std::string_view text, std::string_view what, std::uint64_t least,
                          std::uint64_t most) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    std::uint64_t value = 0;
    if (!readNumber(hexadecimal ? text.substr(2) : text, value, hexadecimal ? 16 : 10) || value < least ||
        value > most) {
        throw InputError(
            fmt::format("{} is \"{}\"; allowed is a number from {} to {}", what, text, least, most));
    }
    return value;
}

int parseCoordinate(std::string_view text, std::string_view what) {
    constexpr int kLimit = 32768;
    int value = 0;
    if (!readNumber(text, value) || value < -kLimit || value > kLimit) {
        throw InputError(
            fmt::format("{} is \"{}\"; allowed is a number from {} to {}", what, text, -kLimit, kLimit));
    }
    return value;
}

Size parseSize(std::string_view text, std::string_view what) {
    const std::size_t cross = text.find('x');
    Size size;
    if (cross == std::string_view::npos || !readNumber(text.substr(0, cross), size.width) ||
        !readNumber(text.substr(cross + 1), size.height) || size.width == 0 || size.height == 0 ||
        size.width > kMaxSurfaceSide || size.height > kMaxSurfaceSide) {
        throw InputError(fmt::format("{} is \"{}\"; allowed is WIDTHxHEIGHT, each from 1 to {}", what, text,
                                     kMaxSurfaceSide));
    }
    return size;
}

std::uint64_t parseBandwidth(std::string_view text, std::string_view what) {
    double megabytes = 0;
    if (!readNumber(text, megabytes) || !(megabytes >= 0.001 && megabytes <= 100000)) {
        throw InputError(
            fmt::format("{} is \"{}\"; allowed are 0.001 to 100000 megabytes per second", what, text));
    }
    return static_cast<std::uint64_t>(megabytes * 1e6);
}

} // namespace support
