// Compares what the monitor shows with what it must show in its mode.
#pragma once

#include "rig/reference.h"
#include "rig/session.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace rig {

// The adapter's pixel format and the encoding, which together determine the frame memory for a picture.
struct WireMode {
    WireFormat format = rig::WireFormat::Bgr24;
    Encoding encoding = rig::Encoding::Plain;
    auto operator<=>(const WireMode&) const = default;
};

// Checks the monitor against one picture. The expected frames are computed once per mode and level.
class ScreenCheck {
  public:
    // Both outlive the check.
    ScreenCheck(Session& session, const support::Surface& picture) : session_(session), picture_(picture) {}
    ScreenCheck(Session& session, support::Surface&& picture) = delete;

    // Whether the monitor shows the picture, at the driver's present level of compression.
    bool matches();

    // Waits for `matches`.
    bool waitForMatch(usb::Time timeout);

    // What is wrong, in one sentence that names the first different pixel.
    std::string problem();

  private:
    struct Candidate {
        unsigned level;
        std::size_t leadIn;
    };
    std::vector<Candidate> candidates(WireMode mode);

    struct Key {
        WireMode mode;
        unsigned level;
        std::size_t leadIn;
        auto operator<=>(const Key&) const = default;
    };
    struct Expected {
        std::vector<std::uint8_t> frame;
        std::uint64_t checksum;
    };
    const Expected& expectedFor(const Key& key);

    Session& session_;
    const support::Surface& picture_;
    std::map<Key, Expected> cache_;
};

} // namespace rig
