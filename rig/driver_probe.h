// Reads the driver's own records through the context pointer from the exchange of entry points. For reports
// only; tests compare what the monitor shows.
#pragma once

#include "desktop/client.h"

#include <optional>

namespace rig {

struct DriverState {
    unsigned compressionLevel = 0;
    unsigned quantizationLevel = 0;
    unsigned newestBuffer = 0; // another one with every conversion of a frame
    bool groupEncoder = false; // the processor lets the driver use it for 16-bit output
};

// Nothing while the client is not open.
std::optional<DriverState> probeDriver(const desktop::Client& client);

} // namespace rig
