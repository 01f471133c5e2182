// A look into the driver's own records, which the exchange of entry points leads to. For reports only: the
// driver is judged by what the monitor shows.
#pragma once

#include "desktop/client.h"

#include <optional>

namespace rig {

struct DriverState {
    unsigned width = 0;
    unsigned height = 0;
    unsigned refresh = 0;
    unsigned outputBytes = 0; // per pixel
    bool compressed = false;
    unsigned compressionLevel = 0;
    unsigned quantisationLevel = 0;
    bool groupEncoder = false; // the processor lets the driver use it for 16-bit output
};

// Nothing while the client is not open.
std::optional<DriverState> probeDriver(const desktop::Client& client);

} // namespace rig
