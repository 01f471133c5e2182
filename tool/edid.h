// `usbdisplay edid`: what the client is offered when a monitor with this EDID is attached.
#pragma once

#include "model/adapter.h"
#include "rig/settings.h"
#include "tool/exit_status.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

struct EdidOptions {
    std::string file; // "-" for standard input
    model::AdapterOptions adapter;
    std::vector<rig::Setting> settings;
    std::string out; // the block the client reads
    std::uint64_t seed = 1;
    bool json = false;
};

ExitStatus showEdid(const EdidOptions& options);

} // namespace tool
