// The modes of an EDID, and what the driver's rewriting did to each. The decoder is independent of the
// driver's and accepts any bytes.
#pragma once

#include "support/parse.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tool {

struct EdidMode {
    std::string place; // "established", "standard 3", "detailed 1", "CEA VIC 16"
    support::Size size;
    unsigned refresh = 0; // Hz, rounded
    unsigned code = 0;    // bit number, entry, slot or VIC

    bool operator==(const EdidMode&) const = default;
};

// The modes of the base block, and those of the short video descriptors in CEA-861 extensions whose codes
// CEA-861-D defines. Empty for bytes that do not start with an EDID header.
std::vector<EdidMode> edidModes(std::span<const std::uint8_t> edid);

enum class Fate : std::uint8_t { Kept, Changed, Dropped, Added };
std::string_view fateName(Fate fate);

struct ModeFate {
    Fate fate = Fate::Kept;
    EdidMode before; // for `Added`, the new mode
    EdidMode after;  // for `Changed`
    std::string reason;
};

// The conditions under which the driver rewrote the EDID.
struct RewriteConditions {
    bool superSpeed = false;    // bcdUSB 0x0300
    bool ignored = false;       // "UseForceNonPnpMonitor": the EDID is not read
    bool ceaModesCount = false; // read with a transmitter: CEA modes count in the choice of the preferred one
    std::function<bool(support::Size, unsigned refresh)> supported; // the adapter can drive it
};

// `after` is the block the client reads.
std::vector<ModeFate> explainRewrite(std::span<const std::uint8_t> before,
                                     std::span<const std::uint8_t> after,
                                     const RewriteConditions& conditions);

} // namespace tool
