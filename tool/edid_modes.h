// What an EDID offers, and what became of it when the driver rewrote it. Decoded here anew, independently of
// the driver. Bytes may be any: nothing outside them is read.
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
    unsigned code = 0;    // bit number, entry, slot or VIC: what tells two modes of one kind apart

    bool operator==(const EdidMode&) const = default;
};

// The modes of the base block, and of CEA-861 extensions as far as short video descriptors of the table in
// CEA-861-D tell them. Empty for bytes that do not start with an EDID header.
std::vector<EdidMode> edidModes(std::span<const std::uint8_t> edid);

enum class Fate : std::uint8_t { Kept, Changed, Dropped, Added };
std::string_view fateName(Fate fate);

struct ModeFate {
    Fate fate = Fate::Kept;
    EdidMode before; // for `Added` the mode that came
    EdidMode after;  // for `Changed`
    std::string reason;
};

// How the driver was set when it rewrote the EDID.
struct RewriteConditions {
    bool superSpeed = false;    // bcdUSB 0x0300
    unsigned filter = 1;        // "FilterEdidTableEnable"
    bool ignored = false;       // "UseForceNonPnpMonitor": the EDID is not read
    bool ceaModesCount = false; // read with a transmitter: CEA modes take part in choosing the preferred one
    std::function<bool(support::Size, unsigned refresh)> supported; // the adapter can drive it
};

// `after` is the block the client reads.
std::vector<ModeFate> explainRewrite(std::span<const std::uint8_t> before,
                                     std::span<const std::uint8_t> after,
                                     const RewriteConditions& conditions);

} // namespace tool
