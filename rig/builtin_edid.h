// The EDID of the monitor that is attached by default.
#pragma once

#include <cstdint>
#include <vector>

namespace rig {

// An HDMI monitor of 1920x1080 at 60 Hz: base block and CEA-861 extension (VESA E-EDID 1.3, CEA-861-D).
std::vector<std::uint8_t> builtinEdid();

} // namespace rig
