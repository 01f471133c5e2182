// The display modes of the driver.
#pragma once

#include "support/parse.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace tool {

struct ModeInfo {
    support::Size size;
    unsigned refresh = 0;         // Hz, nominal
    double exactRefresh = 0;      // Hz, with the PLL's pixel clock
    std::uint64_t pixelClock = 0; // Hz, of the timing at the nominal refresh
    std::uint64_t pllClock = 0;   // Hz
    unsigned horizontalTotal = 0;
    unsigned verticalTotal = 0;
    bool offered = false; // whether a monitor may offer it and a client can show it
};

// In the order of the driver's table, without duplicates.
std::vector<ModeInfo> modeList();

// Whether a monitor may offer the mode to the client.
bool isOffered(support::Size size, unsigned refresh);

// Throws `InputError` unless a client can show frames of this size.
void requireShowable(support::Size size, std::string_view what);

} // namespace tool
