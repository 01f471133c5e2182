#include "model/frame_memory.h"

#include <algorithm>
#include <fmt/format.h>

#include "model/run_stream.h"

namespace model {

namespace {

bool equal(std::span<const std::uint8_t> left, const std::vector<std::uint8_t>& right) {
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin());
}

} // namespace

FrameMemory::Result FrameMemory::store(const FrameLayout& layout, std::span<const std::uint8_t> bytes) {
    if (layout_ == layout && equal(bytes, layout.compressed ? stream_ : frame_.pixels)) {
        return {.good = true, .repeated = true, .kind = {}, .cause = {}};
    }
    Result result = layout.compressed ? storeCompressed(layout, bytes) : storePlain(layout, bytes);
    if (result.good) {
        layout_ = layout;
        frame_.width = layout.width;
        frame_.height = layout.height;
        frame_.format = layout.format;
        checksum_ = model::checksum(frame_.pixels);
    }
    return result;
}

FrameMemory::Result FrameMemory::storePlain(const FrameLayout& layout, std::span<const std::uint8_t> bytes) {
    const std::size_t wanted = std::size_t{layout.width} * layout.height * bytesPerPixel(layout.format);
    if (bytes.size() != wanted) {
        return {.good = false,
                .repeated = false,
                .kind = ViolationKind::BadFrameLength,
                .cause = fmt::format("{} bytes for a {}x{} frame of {}, which has {}", bytes.size(),
                                     layout.width, layout.height, name(layout.format), wanted)};
    }
    frame_.pixels.assign(bytes.begin(), bytes.end());
    return {.good = true, .repeated = false, .kind = {}, .cause = {}};
}

FrameMemory::Result FrameMemory::storeCompressed(const FrameLayout& layout,
                                                 std::span<const std::uint8_t> bytes) {
    const unsigned unit = bytesPerPixel(layout.format);
    expanded_.resize(std::size_t{layout.width} * layout.height * unit);
    std::string cause = expandRuns(bytes, unit, expanded_);
    if (!cause.empty()) {
        return {
            .good = false, .repeated = false, .kind = ViolationKind::BadStream, .cause = std::move(cause)};
    }
    frame_.pixels.swap(expanded_);
    stream_.assign(bytes.begin(), bytes.end());
    return {.good = true, .repeated = false, .kind = {}, .cause = {}};
}

} // namespace model
