// `usbdisplay show`: presents frames and checks the monitor.
#pragma once

#include "model/adapter.h"
#include "rig/settings.h"
#include "support/parse.h"
#include "tool/exit_status.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tool {

struct ShowOptions {
    std::string image; // at most one of these three; none shows the pattern "bars"
    std::string pattern;
    std::string video;
    std::optional<support::Size> size; // of the frames; by default that of the image, or 1920x1080
    std::optional<support::Size> mode; // of the display; by default `size`
    model::AdapterOptions adapter;
    std::uint64_t bandwidth = 0; // bytes per second; 0 for the link's own
    std::string edid = "default";
    std::vector<rig::Setting> settings;
    std::optional<unsigned> frames; // by default 1, 60 for a moving pattern, all of a video
    unsigned rate = 60;             // frames per second
    std::optional<std::pair<int, int>> pointer;
    std::string out;     // PNG of the monitor
    std::string capture; // pcapng
    std::uint64_t seed = 1;
    usb::Time tick = 0; // of the clock by which the driver's waits end
    bool free = false;  // real threads and the real clock
    std::uint32_t cpuFeatures = 0xFFFFFFFF;
    bool json = false;
};

ExitStatus show(const ShowOptions& options);

} // namespace tool
