// The adapter's frame memory: takes a frame from the wire, expands it when it is compressed, and keeps the
// last good one.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "model/picture.h"
#include "model/violation.h"

namespace model {

struct FrameLayout {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    PixelFormat format = PixelFormat::Bgr24;
    bool compressed = false;

    bool operator==(const FrameLayout&) const = default;
};

class FrameMemory {
  public:
    struct Result {
        bool good = false;
        bool repeated =
            false; // the same bytes as the frame before, which is what a host sends most of the time
        ViolationKind kind{}; // when not good
        std::string cause;
    };

    // One whole frame. A bad one leaves the contents as they were.
    Result store(const FrameLayout& layout, std::span<const std::uint8_t> bytes);

    const RawFrame& frame() const { return frame_; }
    std::uint64_t checksum() const { return checksum_; }

  private:
    Result storePlain(const FrameLayout& layout, std::span<const std::uint8_t> bytes);
    Result storeCompressed(const FrameLayout& layout, std::span<const std::uint8_t> bytes);

    std::optional<FrameLayout> layout_;
    RawFrame frame_;
    std::uint64_t checksum_ = 0;
    std::vector<std::uint8_t> stream_;   // the bytes that `frame_` was expanded from
    std::vector<std::uint8_t> expanded_; // target of the next expansion
};

} // namespace model
