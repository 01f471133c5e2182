// Sources of desktop frames: a picture, a test pattern, or a stream of raw frames.
#pragma once

#include "support/surface.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace desktop {

class FrameSource {
  public:
    virtual ~FrameSource() = default;

    // The next frame; false when there is none. `frame` keeps its memory between calls.
    virtual bool next(support::Surface& frame) = 0;
};

// The same picture without end.
std::unique_ptr<FrameSource> stillSource(support::Surface picture);

// A test pattern without end. `seed` selects the picture of random patterns.
struct Pattern {
    std::string_view name;
    std::string_view description;
    bool moves;
};
std::span<const Pattern> patterns();
const Pattern* findPattern(std::string_view name); // null when there is none
support::Surface drawPattern(const Pattern& pattern, unsigned width, unsigned height, std::uint64_t frame,
                             std::uint64_t seed);
std::unique_ptr<FrameSource> patternSource(const Pattern& pattern, unsigned width, unsigned height,
                                           std::uint64_t seed);

// Raw BGRX frames without a header, as `ffmpeg -f rawvideo -pix_fmt bgr0` writes them; "-" reads standard
// input. Throws `InputError` for a stream that ends inside a frame.
std::unique_ptr<FrameSource> rawVideoSource(const std::string& file, unsigned width, unsigned height);

} // namespace desktop
