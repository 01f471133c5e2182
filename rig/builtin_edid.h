// The monitor that is plugged in when no EDID is given.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// An HDMI monitor of 1920x1080 at 60 Hz: base block and CEA-861 extension (VESA E-EDID 1.3, CEA-861-D).
std::vector<std::uint8_t> builtinEdid();

// An EDID file: whole blocks of 128 bytes, at most 256 of them. Neither header nor checksums are examined:
// what a driver does with a damaged one is worth seeing. "none" is a monitor without DDC: no bytes.
// "default" is the built-in one.
std::vector<std::uint8_t> loadEdid(const std::string& file);

} // namespace tool
