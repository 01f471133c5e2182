// Loads the EDID that an option or a script names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// "default" is the built-in EDID; "none" is a monitor without DDC, which has no bytes. Anything else is a
// file of 1 to 256 blocks of 128 bytes. Header and checksums are not checked, so that the driver can be tried
// with damaged EDIDs. Throws `InputError`.
std::vector<std::uint8_t> loadEdid(const std::string& file);

} // namespace tool
