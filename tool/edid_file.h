// EDIDs as a user names them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// An EDID file: whole blocks of 128 bytes, at most 256 of them. Neither header nor checksums are examined:
// what a driver does with a damaged one is worth seeing. "none" is a monitor without DDC: no bytes.
// "default" is the built-in one.
std::vector<std::uint8_t> loadEdid(const std::string& file);

} // namespace tool
