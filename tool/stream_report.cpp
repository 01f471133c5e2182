#include "tool/stream_report.h"

#include <algorithm>
#include <fmt/format.h>

namespace tool {

namespace {

using rig::StreamFigures;
using rig::StreamSample;

std::string range(unsigned lowest, unsigned highest) {
    return lowest == highest ? std::to_string(lowest) : fmt::format("{} to {}", lowest, highest);
}

void reportFrames(Report& report, const StreamFigures& f, bool realTime) {
    const std::uint64_t bytesPerFrame = f.sent == 0 ? 0 : f.bytes / f.sent;
    report.add(
        "frames", {{"presented", f.presented}, {"shown", f.shown}, {"sent", f.sent}}, "frames",
        fmt::format("{} presented, {} shown, {} sent including repeats", f.presented, f.shown, f.sent));
    report.add("wire",
               {{"bytes", f.bytes},
                {"bytes_per_frame", bytesPerFrame},
                {"bandwidth", f.bandwidth},
                {"busy", f.busy}},
               "wire",
               fmt::format("{} bytes, {} per frame; link of {:.3g} MB/s busy {:.1f} %", f.bytes,
                           bytesPerFrame, static_cast<double>(f.bandwidth) / 1e6, f.busy * 100));
    report.add("frame_rate", f.frameRate, "frame rate",
               f.shown > 1 ? fmt::format("{:.1f} pictures per second of {} time", f.frameRate,
                                         realTime ? "real" : "virtual")
                           : "one picture, no rate");
    report.add("seconds", f.seconds);
    report.add("clock", realTime ? "real" : "virtual");
}

Json cpuJson(double fill, double convert, double complete) {
    return {{"client_fill", fill}, {"convert_and_queue", convert}, {"send_and_complete", complete}};
}

void reportCpu(Report& report, const StreamFigures& f) {
    const auto inMs = [](std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; };
    const double fill = inMs(f.fillNanoseconds);
    const double convert = inMs(f.convertNanoseconds);
    const double complete = inMs(f.completeNanoseconds);
    report.add("cpu_ms", cpuJson(fill, convert, complete));
    const double frames = static_cast<double>(std::max<std::uint64_t>(f.presented, 1));
    report.add(
        "cpu_ms_per_frame", cpuJson(fill / frames, convert / frames, complete / frames), "CPU per frame",
        fmt::format("client fill {:.2f} ms | convert and queue {:.2f} ms | send and complete {:.2f} ms",
                    fill / frames, convert / frames, complete / frames));
    report.add("allocations", f.allocations, "allocations",
               fmt::format("{} in the driver while streaming", f.allocations));
}

void reportLevels(Report& report, const StreamFigures& f) {
    report.add("frame_errors", f.frameErrors);
    report.add("format_switches", f.formatSwitches);
    if (f.frameErrors != 0 || f.formatSwitches != 0) {
        report.addLine(
            fmt::format("{} frame errors, {} changes of bits per pixel", f.frameErrors, f.formatSwitches));
    }
    report.add("frames_encoded_again", f.framesEncodedAgain);
    if (std::ranges::none_of(f.samples, &StreamSample::compressed)) {
        return;
    }
    const auto [coarse, finest] = std::ranges::minmax_element(f.samples, {}, &StreamSample::compressionLevel);
    const auto [low, high] = std::ranges::minmax_element(f.samples, {}, &StreamSample::quantizationLevel);
    report.add("compression_level", f.samples.back().compressionLevel, "compression",
               fmt::format("level {}; quantization level {}; {} frames encoded again",
                           range(coarse->compressionLevel, finest->compressionLevel),
                           range(low->quantizationLevel, high->quantizationLevel), f.framesEncodedAgain));
    report.add("quantisation_level", f.samples.back().quantizationLevel);
}

Json series(const StreamFigures& figures) {
    Json list = Json::array();
    for (const StreamSample& sample : figures.samples) {
        list.push_back({{"ms", static_cast<double>(sample.time) / usb::kMillisecond},
                        {"bytes", sample.bytes},
                        {"transfers", sample.transfers},
                        {"bits_per_pixel", sample.bitsPerPixel},
                        {"compression_level", sample.compressionLevel},
                        {"quantisation_level", sample.quantizationLevel},
                        {"frame_errors", sample.frameErrors}});
    }
    return list;
}

} // namespace

void reportStream(Report& report, const StreamFigures& figures, bool realTime) {
    reportFrames(report, figures, realTime);
    reportCpu(report, figures);
    reportLevels(report, figures);
    report.add("series", series(figures));
}

} // namespace tool
