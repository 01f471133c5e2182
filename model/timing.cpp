#include "model/timing.h"

#include <cmath>
#include <fmt/format.h>

#include "model/registers.h"

namespace model {

namespace {

constexpr double kClockTolerance = 0.01;

std::string contradictionOf(const char* axis, std::uint32_t active, std::uint32_t total, std::uint32_t sync,
                            std::uint32_t startPlusOne) {
    if (active == 0 || sync == 0) {
        return fmt::format("{}: {} active, {} of sync", axis, active, sync);
    }
    if (startPlusOne <= sync) {
        return fmt::format("{}: the picture starts at {} inside a sync of {}", axis, startPlusOne, sync);
    }
    if (startPlusOne - 1 + active > total) {
        return fmt::format("{}: {} active from {} do not fit a total of {}", axis, active, startPlusOne - 1,
                           total);
    }
    return {};
}

} // namespace

Timing decodeTiming(const TimingImages& images) {
    Timing timing;
    timing.width = images.horizontalSize >> 16;
    timing.horizontalTotal = images.horizontalSize & 0xFFFF;
    timing.horizontalSync = images.horizontalSync >> 16;
    timing.horizontalStart = (images.horizontalSync & 0xFFFF) - 1;
    timing.height = images.verticalSize >> 16;
    timing.verticalTotal = images.verticalSize & 0xFFFF;
    timing.verticalSync = images.verticalSync >> 16 & 0xF;
    timing.verticalStart = (images.verticalSync & 0xFFFF) - 1;
    return timing;
}

std::string contradiction(const TimingImages& images) {
    if ((images.verticalSync & 0xFFFF) != images.verticalSync >> 20) {
        return fmt::format("the vertical sync image 0x{:08X} names two different starts",
                           images.verticalSync);
    }
    const Timing timing = decodeTiming(images);
    std::string cause = contradictionOf("horizontal", timing.width, timing.horizontalTotal,
                                        timing.horizontalSync, images.horizontalSync & 0xFFFF);
    if (cause.empty()) {
        cause = contradictionOf("vertical", timing.height, timing.verticalTotal, timing.verticalSync,
                                images.verticalSync & 0xFFFF);
    }
    return cause;
}

double pllClock(std::uint32_t word) {
    const std::uint32_t multiplier = word >> 16 & 0xFF;
    const std::uint32_t divider = word & 0xFF;
    if (divider == 0) {
        return 0;
    }
    return reg::kPllReference * multiplier / divider / ((word & reg::kPllHalve) != 0 ? 2 : 1);
}

double refreshOf(const Timing& timing, double clock) {
    const double total = static_cast<double>(timing.horizontalTotal) * timing.verticalTotal;
    return total > 0 ? clock / total : 0;
}

std::optional<unsigned> nominalRefresh(const Timing& timing, double clock) {
    const double refresh = refreshOf(timing, clock);
    std::optional<unsigned> nearest;
    for (const unsigned rate : {15u, 24u, 30u, 43u, 50u, 56u, 60u, 65u, 70u, 72u, 73u, 75u, 85u, 100u}) {
        if (std::abs(refresh - rate) <= rate * kClockTolerance &&
            (!nearest || std::abs(refresh - rate) < std::abs(refresh - *nearest))) {
            nearest = rate;
        }
    }
    return nearest;
}

} // namespace model
