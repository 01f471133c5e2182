// The frame stream that the adapter is programmed for.
#pragma once

#include "model/picture.h"

#include <cstdint>

namespace model {

struct OutputMode {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t horizontalTotal = 0;
    std::uint32_t verticalTotal = 0;
    double pixelClock = 0; // Hz, 0 while the PLL is stopped
    double refresh = 0;    // Hz, 0 while the PLL is stopped
    PixelFormat format = PixelFormat::Bgr24;
    bool compressed = false;
    bool zeroLengthTransfers = false;
};

} // namespace model
