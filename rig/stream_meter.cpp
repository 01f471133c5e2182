#include "rig/stream_meter.h"

#include <algorithm>
#include <fmt/format.h>

namespace tool {

namespace {

double seconds(usb::Time time) {
    return static_cast<double>(time) / usb::kSecond;
}

// What a thread spent in the driver is estimated, and on a busy machine a later estimate may be the smaller
// one.
std::uint64_t growth(std::uint64_t before, std::uint64_t after) {
    return after > before ? after - before : 0;
}

// How often the group encoder encoded one frame anew to get from one level to another: each time it goes half
// the way to level 12.
unsigned encodingsAgain(unsigned from, unsigned to) {
    constexpr unsigned kCoarsest = 11;
    unsigned count = 0;
    for (unsigned level = from; level < to && level < kCoarsest; level += (12 - level) / 2) {
        count++;
    }
    return count;
}

std::string range(unsigned lowest, unsigned highest) {
    return lowest == highest ? std::to_string(lowest) : fmt::format("{} to {}", lowest, highest);
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
    counters.adapter = session_.adapter().statistics();
    return counters;
}

void StreamMeter::framePresented() {
    presented_++;
    sample();
}

void StreamMeter::finish() {
    sample();
    end_ = count();
    session_.adapter().setScreenListener(nullptr);
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
                        .quantisationLevel = driver.quantisationLevel,
                        .frameErrors = now.adapter.frameErrors - begin_.adapter.frameErrors});
    atLastSample_ = now;
}

std::uint64_t StreamMeter::framesEncodedAgain() const {
    std::uint64_t again = 0;
    unsigned level = 0;
    for (const Sample& sample : samples_) {
        again += encodingsAgain(level, sample.quantisationLevel);
        level = sample.quantisationLevel;
    }
    return again;
}

std::uint64_t StreamMeter::formatSwitches() const {
    std::uint64_t switches = 0;
    unsigned bits = 0;
    for (const Sample& sample : samples_) {
        switches += bits != 0 && sample.bitsPerPixel != 0 && sample.bitsPerPixel != bits;
        bits = sample.bitsPerPixel != 0 ? sample.bitsPerPixel : bits;
    }
    return switches;
}

void StreamMeter::report(Report& report, bool realTime) const {
    reportFrames(report, realTime);
    reportCpu(report);
    reportLevels(report);
    report.add("series", series());
}

void StreamMeter::reportFrames(Report& report, bool realTime) const {
    const std::uint64_t shown = screen_->changes;
    const std::uint64_t sent = end_.transfers - begin_.transfers;
    const std::uint64_t bytes = end_.bytes - begin_.bytes;
    const usb::Time elapsed = std::max<usb::Time>(end_.time - begin_.time, 1);
    const double rate = shown > 1 ? static_cast<double>(shown - 1) /
                                        seconds(std::max<usb::Time>(screen_->last - screen_->first, 1))
                                  : 0;
    const double busy = static_cast<double>(end_.busy - begin_.busy) / static_cast<double>(elapsed);
    report.add("frames", {{"presented", presented_}, {"shown", shown}, {"sent", sent}}, "frames",
               fmt::format("{} presented, {} shown, {} sent with their repeats", presented_, shown, sent));
    report.add("wire",
               {{"bytes", bytes},
                {"bytes_per_frame", sent == 0 ? 0 : bytes / sent},
                {"bandwidth", session_.link().bandwidth()},
                {"busy", busy}},
               "wire",
               fmt::format("{} bytes, {} a frame; link of {:.3g} MB/s busy {:.1f} %", bytes,
                           sent == 0 ? 0 : bytes / sent,
                           static_cast<double>(session_.link().bandwidth()) / 1e6, busy * 100));
    report.add("frame_rate", rate, "frame rate",
               shown > 1
                   ? fmt::format("{:.1f} pictures a second of {} time", rate, realTime ? "real" : "virtual")
                   : "one picture, no rate");
    report.add("seconds", seconds(elapsed));
    report.add("clock", realTime ? "real" : "virtual");
}

void StreamMeter::reportCpu(Report& report) const {
    const std::uint64_t fill = growth(begin_.fill, end_.fill);
    const std::uint64_t convert = growth(begin_.convert, end_.convert);
    const std::uint64_t complete = growth(begin_.complete, end_.complete);
    const auto inMs = [](std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; };
    report.add("cpu_ms", {{"client_fill", inMs(fill)},
                          {"convert_and_queue", inMs(convert)},
                          {"send_and_complete", inMs(complete)}});
    const double frames = static_cast<double>(std::max<std::uint64_t>(presented_, 1));
    report.add(
        "cpu_ms_per_frame",
        {{"client_fill", inMs(fill) / frames},
         {"convert_and_queue", inMs(convert) / frames},
         {"send_and_complete", inMs(complete) / frames}},
        "CPU per frame",
        fmt::format("client fill {:.2f} ms | convert and queue {:.2f} ms | send and complete {:.2f} ms",
                    inMs(fill) / frames, inMs(convert) / frames, inMs(complete) / frames));
    report.add("allocations", end_.allocations - begin_.allocations, "allocations",
               fmt::format("{} in the driver while streaming", end_.allocations - begin_.allocations));
}

void StreamMeter::reportLevels(Report& report) const {
    const std::uint64_t errors = end_.adapter.frameErrors - begin_.adapter.frameErrors;
    report.add("frame_errors", errors);
    report.add("format_switches", formatSwitches());
    if (errors != 0 || formatSwitches() != 0) {
        report.addLine(
            fmt::format("{} frame errors, {} changes of bits per pixel", errors, formatSwitches()));
    }
    report.add("frames_encoded_again", framesEncodedAgain());
    if (std::ranges::none_of(samples_, &Sample::compressed)) {
        return;
    }
    const auto [coarse, finest] = std::ranges::minmax_element(samples_, {}, &Sample::compressionLevel);
    const auto [low, high] = std::ranges::minmax_element(samples_, {}, &Sample::quantisationLevel);
    report.add("compression_level", samples_.back().compressionLevel, "compression",
               fmt::format("level {}; quantisation level {}; {} frames encoded again",
                           range(coarse->compressionLevel, finest->compressionLevel),
                           range(low->quantisationLevel, high->quantisationLevel), framesEncodedAgain()));
    report.add("quantisation_level", samples_.back().quantisationLevel);
}

Json StreamMeter::series() const {
    Json list = Json::array();
    for (const Sample& sample : samples_) {
        list.push_back({{"ms", seconds(sample.time) * 1000},
                        {"bytes", sample.bytes},
                        {"transfers", sample.transfers},
                        {"bits_per_pixel", sample.bitsPerPixel},
                        {"compression_level", sample.compressionLevel},
                        {"quantisation_level", sample.quantisationLevel},
                        {"frame_errors", sample.frameErrors}});
    }
    return list;
}

} // namespace tool
