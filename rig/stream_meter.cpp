#include "rig/stream_meter.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace rig {

namespace {

double seconds(usb::Time time) {
    return static_cast<double>(time) / usb::kSecond;
}

// The time that a thread spent in the driver is estimated. On a busy machine a later estimate may be smaller.
std::uint64_t growth(std::uint64_t before, std::uint64_t after) {
    return after > before ? after - before : 0;
}

// The number of times that the group encoder encoded one frame again to get from one level to another. Each
// time it raises the level by half the distance to level 12.
unsigned encodingsAgain(unsigned from, unsigned to) {
    constexpr unsigned kCoarsest = 11;
    unsigned count = 0;
    for (unsigned level = from; level < to && level < kCoarsest; level += (12 - level) / 2) {
        count++;
    }
    return count;
}

std::uint64_t framesEncodedAgain(const std::vector<StreamSample>& samples) {
    std::uint64_t again = 0;
    unsigned level = 0;
    for (const StreamSample& sample : samples) {
        again += encodingsAgain(level, sample.quantizationLevel);
        level = sample.quantizationLevel;
    }
    return again;
}

std::uint64_t formatSwitches(const std::vector<StreamSample>& samples) {
    std::uint64_t switches = 0;
    unsigned bits = 0;
    for (const StreamSample& sample : samples) {
        switches += bits != 0 && sample.bitsPerPixel != 0 && sample.bitsPerPixel != bits;
        bits = sample.bitsPerPixel != 0 ? sample.bitsPerPixel : bits;
    }
    return switches;
}

} // namespace

StreamMeter::StreamMeter(Session& session) : session_(session) {
    session.adapter().setScreenListener([screen = screen_, &clock = session.machine().clock()] {
        const usb::Time now = clock.now();
        if (screen->changes++ == 0) {
            screen->first = now;
        }
        screen->last = now;
    });
    begin_ = atLastSample_ = count();
}

StreamMeter::~StreamMeter() = default;

StreamMeter::Counters StreamMeter::count() const {
    Counters counters;
    counters.time = session_.machine().clock().now();
    counters.bytes = session_.link().bulkBytes();
    counters.transfers = session_.link().bulkTransfers();
    counters.busy = session_.link().busyTime();
    counters.fill = session_.client().fillNanoseconds();
    for (const platform::CpuTime& task : session_.machine().cpuTimes()) {
        if (task.kind == kernel::TaskKind::System) {
            counters.convert += task.driverNanoseconds;
        } else if (task.kind == kernel::TaskKind::Dpc) {
            counters.complete += task.driverNanoseconds;
        }
    }
    counters.allocations = session_.machine().poolAllocations() + session_.machine().objectCreations();
    counters.frameErrors = session_.adapter().statistics().frameErrors;
    return counters;
}

void StreamMeter::framePresented() {
    presented_++;
    sample();
}

void StreamMeter::sample() {
    const Counters now = count();
    const std::optional<model::OutputMode> mode = session_.adapter().outputMode();
    const DriverState driver = probeDriver(session_.client()).value_or(DriverState{});
    samples_.push_back({.time = now.time - begin_.time,
                        .bytes = now.bytes - atLastSample_.bytes,
                        .transfers = now.transfers - atLastSample_.transfers,
                        .bitsPerPixel = mode ? 8 * model::bytesPerPixel(mode->format) : 0,
                        .compressed = mode && mode->compressed,
                        .compressionLevel = driver.compressionLevel,
                        .quantizationLevel = driver.quantizationLevel,
                        .frameErrors = now.frameErrors - begin_.frameErrors});
    atLastSample_ = now;
}

double StreamMeter::frameRate() const {
    const std::uint64_t shown = screen_->changes;
    const usb::Time elapsed = std::max<usb::Time>(screen_->last - screen_->first, 1);
    return shown > 1 ? static_cast<double>(shown - 1) / seconds(elapsed) : 0;
}

StreamFigures StreamMeter::finish() {
    sample();
    const Counters end = count();
    session_.adapter().setScreenListener(nullptr);
    const usb::Time elapsed = std::max<usb::Time>(end.time - begin_.time, 1);
    return {.presented = presented_,
            .shown = screen_->changes,
            .sent = end.transfers - begin_.transfers,
            .bytes = end.bytes - begin_.bytes,
            .bandwidth = session_.link().bandwidth(),
            .busy = static_cast<double>(end.busy - begin_.busy) / static_cast<double>(elapsed),
            .frameRate = frameRate(),
            .seconds = seconds(elapsed),
            .fillNanoseconds = growth(begin_.fill, end.fill),
            .convertNanoseconds = growth(begin_.convert, end.convert),
            .completeNanoseconds = growth(begin_.complete, end.complete),
            .allocations = end.allocations - begin_.allocations,
            .frameErrors = end.frameErrors - begin_.frameErrors,
            .formatSwitches = formatSwitches(samples_),
            .framesEncodedAgain = framesEncodedAgain(samples_),
            .samples = std::move(samples_)};
}

} // namespace rig
