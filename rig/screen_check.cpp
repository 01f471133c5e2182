#include "rig/screen_check.h"

#include "rig/driver_probe.h"

#include <algorithm>
#include <fmt/format.h>

namespace rig {

namespace {

WireFormat wireFormat(model::PixelFormat format) {
    switch (format) {
    case model::PixelFormat::Rgb565:
        return WireFormat::Rgb565;
    case model::PixelFormat::Rgb555:
        return WireFormat::Rgb555;
    case model::PixelFormat::Rgb8:
        return WireFormat::Rgb8;
    default:
        return WireFormat::Bgr24;
    }
}

// The encoder that the driver uses for a compressed mode.
Encoding encoderFor(WireFormat format, bool groupEncoder, unsigned revision) {
    if (bytesPerPixel(format) == 2) {
        return groupEncoder ? Encoding::Quantized : Encoding::Tolerant;
    }
    return revision == 2 ? Encoding::Exact : Encoding::Tolerant;
}

// The present mode of adapter and driver. Nothing while no timing is programmed, or while frames are
// compressed and the client is not open, because the encoder is then unknown.
std::optional<WireMode> currentWireMode(Session& session) {
    const std::optional<model::OutputMode> mode = session.adapter().outputMode();
    if (!mode) {
        return std::nullopt;
    }
    const WireFormat format = wireFormat(mode->format);
    if (!mode->compressed) {
        return WireMode{format, Encoding::Plain};
    }
    const std::optional<DriverState> driver = probeDriver(session.client());
    if (!driver) {
        return std::nullopt;
    }
    return WireMode{format, encoderFor(format, driver->groupEncoder, session.adapter().options().revision)};
}

} // namespace

// The newest frame was encoded at the driver's present level, or just before the driver changed the level by
// one. The group encoder encodes again when it raises the level, so its frames are never below its level.
// Adapters of revision 1 need streams that begin with 1,025 bytes of literals: always with 16-bit pixels,
// otherwise when the stream would be shorter.
std::vector<ScreenCheck::Candidate> ScreenCheck::candidates(WireMode mode) {
    constexpr unsigned kLeadInBytes = 1025;
    const std::optional<DriverState> driver = probeDriver(session_.client());
    const unsigned levels = levelCount(mode.encoding);
    if (levels == 1 || !driver) {
        return {{0, 0}};
    }
    const unsigned bytes = bytesPerPixel(mode.format);
    const std::size_t leadIn = (kLeadInBytes + bytes - 1) / bytes;
    const bool quantized = mode.encoding == Encoding::Quantized;
    const unsigned level = quantized ? driver->quantizationLevel : driver->compressionLevel;
    const unsigned lowest = quantized || level == 0 ? level : level - 1;
    std::vector<Candidate> list;
    for (unsigned candidate = lowest; candidate <= level + 1 && candidate < levels; candidate++) {
        const bool oldAdapter = session_.adapter().options().revision == 1 && !quantized;
        if (!oldAdapter || bytes != 2) {
            list.push_back({candidate, 0});
        }
        if (oldAdapter) {
            list.push_back({candidate, leadIn});
        }
    }
    // The present level first: it is the one that `problem` compares with.
    std::ranges::stable_sort(list, {},
                             [level](const Candidate& candidate) { return candidate.level != level; });
    return list;
}

const ScreenCheck::Expected& ScreenCheck::expectedFor(const Key& key) {
    const auto found = cache_.find(key);
    if (found != cache_.end()) {
        return found->second;
    }
    std::vector<std::uint8_t> frame =
        expectedFrame(picture_, key.mode.format, key.mode.encoding, key.level, key.leadIn);
    const std::uint64_t checksum = model::checksum(frame);
    return cache_.emplace(key, Expected{std::move(frame), checksum}).first->second;
}

bool ScreenCheck::matches() {
    const std::optional<model::OutputMode> output = session_.adapter().outputMode();
    const std::optional<WireMode> mode = currentWireMode(session_);
    if (!mode || output->width != picture_.width || output->height != picture_.height) {
        return false;
    }
    const std::uint64_t shown = session_.adapter().rawChecksum();
    return std::ranges::any_of(candidates(*mode), [&](const Candidate& candidate) {
        return expectedFor({*mode, candidate.level, candidate.leadIn}).checksum == shown;
    });
}

bool ScreenCheck::waitForMatch(usb::Time timeout) {
    return session_.waitFor(timeout, [this] { return matches(); });
}

std::string ScreenCheck::problem() {
    const std::optional<model::RawFrame> shown = session_.adapter().rawFrame();
    if (!shown) {
        return fmt::format("the monitor is dark: {}", session_.adapter().darkReason());
    }
    if (shown->width != picture_.width || shown->height != picture_.height) {
        return fmt::format("the monitor shows {}x{}, expected {}x{}", shown->width, shown->height,
                           picture_.width, picture_.height);
    }
    const std::optional<WireMode> mode = currentWireMode(session_);
    if (!mode) {
        return "the client is not open, so there is no mode to compare with";
    }
    const Candidate candidate = candidates(*mode).front();
    const std::optional<Difference> difference =
        compareFrames(expectedFor({*mode, candidate.level, candidate.leadIn}).frame, shown->pixels,
                      shown->width, bytesPerPixel(mode->format));
    return difference ? fmt::format("wrong picture: {}", difference->text(mode->format))
                      : "the picture is right now, but came too late";
}

} // namespace rig
