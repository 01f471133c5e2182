// What the timing and clock registers say.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace model {

// In pixels and lines. `Start` counts from the beginning of sync to the first active pixel or line.
struct Timing {
    std::uint32_t width = 0, horizontalTotal = 0, horizontalSync = 0, horizontalStart = 0;
    std::uint32_t height = 0, verticalTotal = 0, verticalSync = 0, verticalStart = 0;

    bool operator==(const Timing&) const = default;
};

struct TimingImages {
    std::uint32_t horizontalSize = 0;
    std::uint32_t horizontalSync = 0;
    std::uint32_t verticalSize = 0;
    std::uint32_t verticalSync = 0;
};

Timing decodeTiming(const TimingImages& images);

// What makes the images impossible, as one phrase; empty when they agree.
std::string contradiction(const TimingImages& images);

// The pixel clock in Hz that a word of the PLL register gives; 0 when its divider or its multiplier is 0.
double pllClock(std::uint32_t word);

// The refresh rate that the clock gives for this timing, and the nominal rate: one that the adapter has modes
// for, at most 1 % away. The registers do not carry the rate, so a clock is right when there is one.
double refreshOf(const Timing& timing, double clock);
std::optional<unsigned> nominalRefresh(const Timing& timing, double clock);

} // namespace model
