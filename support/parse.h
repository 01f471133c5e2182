// Numbers and sizes as users write them. Throws `InputError`s that name the value and what is allowed.
#pragma once

#include <cstdint>
#include <string_view>

namespace support {

struct Size {
    unsigned width = 0;
    unsigned height = 0;
    bool operator==(const Size&) const = default;
};

// Decimal, or hexadecimal after "0x". `what` names the value in messages.
std::uint64_t parseNumber(std::string_view text, std::string_view what, std::uint64_t least,
                          std::uint64_t most);

// Decimal, with a sign.
int parseCoordinate(std::string_view text, std::string_view what);

// "WIDTHxHEIGHT", each from 1 to 8192.
Size parseSize(std::string_view text, std::string_view what);

// Megabytes (10^6 bytes) per second, with decimals; as bytes per second.
std::uint64_t parseBandwidth(std::string_view text, std::string_view what);

} // namespace support
