#include "desktop/frame_source.h"

#include "support/file.h"
#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace desktop {

namespace {

using support::InputError;
using support::makePixel;
using support::Pixel;
using support::Surface;

// splitmix64 (Steele, Lea and Flood, 2014): one well-mixed word per input.
std::uint64_t mix(std::uint64_t value) {
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

// The inputs of a pattern: its frame's number and the run's seed.
struct Moment {
    std::uint64_t frame;
    std::uint64_t seed;
};

Pixel barColor(unsigned x, unsigned width) {
    constexpr std::array<Pixel, 8> colors = {
        makePixel(255, 255, 255), makePixel(255, 255, 0), makePixel(0, 255, 255), makePixel(0, 255, 0),
        makePixel(255, 0, 255),   makePixel(255, 0, 0),   makePixel(0, 0, 255),   makePixel(0, 0, 0)};
    return colors[std::uint64_t{x} * colors.size() / width];
}

Pixel gradientColor(unsigned x, unsigned y, const Surface& frame) {
    const unsigned red = static_cast<unsigned>(std::uint64_t{x} * 256 / frame.width);
    const unsigned green = static_cast<unsigned>(std::uint64_t{y} * 256 / frame.height);
    return makePixel(red, green, (x + y) & 0xFF);
}

template <typename Color>
void paint(Surface& frame, Color color) {
    for (unsigned y = 0; y < frame.height; y++) {
        for (unsigned x = 0; x < frame.width; x++) {
            frame.at(x, y) = color(x, y);
        }
    }
}

void drawBars(Surface& frame, const Moment&) {
    // A gray ramp in the lowest quarter shows how a format distinguishes similar tones.
    paint(frame, [&](unsigned x, unsigned y) {
        const unsigned gray = static_cast<unsigned>(std::uint64_t{x} * 256 / frame.width);
        return y < frame.height - frame.height / 4 ? barColor(x, frame.width) : makePixel(gray, gray, gray);
    });
}

void drawGradient(Surface& frame, const Moment&) {
    paint(frame, [&](unsigned x, unsigned y) { return gradientColor(x, y, frame); });
}

void drawChecker(Surface& frame, const Moment&) {
    paint(frame, [](unsigned x, unsigned y) {
        return ((x ^ y) & 1) != 0 ? makePixel(255, 255, 255) : makePixel(0, 0, 0);
    });
}

void drawOutline(Surface& frame, const Moment&) {
    paint(frame, [&](unsigned x, unsigned y) {
        const bool edge = x == 0 || y == 0 || x + 1 == frame.width || y + 1 == frame.height;
        const bool diagonal = std::uint64_t{x} * frame.height / frame.width == y;
        return edge ? makePixel(255, 255, 255) : diagonal ? makePixel(255, 64, 0) : makePixel(16, 24, 48);
    });
}

void drawSolid(Surface& frame, const Moment&) {
    std::ranges::fill(frame.pixels, makePixel(43, 46, 28));
}

void drawMovingBar(Surface& frame, const Moment& moment) {
    const unsigned width = std::max(frame.width / 32, 1u);
    const unsigned left = static_cast<unsigned>(moment.frame * 8 % frame.width);
    paint(frame, [&](unsigned x, unsigned y) {
        const bool inside = (x + frame.width - left) % frame.width < width;
        return inside ? makePixel(255, 255, 255) : gradientColor(x, y, frame);
    });
}

// Lines of cells with random pixels, which are as hard to compress as a page of text.
void drawScroll(Surface& frame, const Moment& moment) {
    constexpr unsigned kCellWidth = 8;
    constexpr unsigned kCellHeight = 16;
    const std::uint64_t top = moment.frame * 3;
    paint(frame, [&](unsigned x, unsigned y) {
        const std::uint64_t line = (top + y) / kCellHeight;
        const unsigned row = static_cast<unsigned>((top + y) % kCellHeight);
        const std::uint64_t layout = mix(moment.seed ^ line);
        const unsigned columns = frame.width / kCellWidth;
        const bool written = columns > 0 && x / kCellWidth < layout % columns;
        const std::uint64_t glyph = mix(layout ^ (x / kCellWidth));
        const bool gap = glyph % 6 == 0 || row < 3 || row > 12 || x % kCellWidth > 5;
        const bool ink = written && !gap && (glyph >> (8 + (row - 3) / 2 * 6 + x % kCellWidth) & 1) != 0;
        return ink ? makePixel(32, 32, 48) : makePixel(250, 250, 246);
    });
}

void drawNoise(Surface& frame, const Moment& moment) {
    std::uint64_t state = mix(moment.seed ^ mix(moment.frame));
    for (Pixel& pixel : frame.pixels) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        pixel = 0xFF000000u | static_cast<Pixel>(state >> 40);
    }
}

struct DrawnPattern {
    Pattern pattern;
    void (*draw)(Surface&, const Moment&);
};

constexpr auto kDrawn = std::to_array<DrawnPattern>({
    {{"bars", "eight color bars over a gray ramp", false}, drawBars},
    {{"gradient", "every red and green, blue along the diagonal", false}, drawGradient},
    {{"checker", "alternating black and white pixels", false}, drawChecker},
    {{"outline", "a one-pixel border and a diagonal, to check the geometry", false}, drawOutline},
    {{"solid", "one dark color", false}, drawSolid},
    {{"moving-bar", "a white bar that crosses the gradient", true}, drawMovingBar},
    {{"scroll", "lines that look like text, moving up", true}, drawScroll},
    {{"noise", "random pixels, new in every frame", true}, drawNoise},
});

constexpr auto kPatterns = [] {
    std::array<Pattern, kDrawn.size()> list{};
    std::ranges::transform(kDrawn, list.begin(), &DrawnPattern::pattern);
    return list;
}();

const DrawnPattern& drawnPattern(const Pattern& pattern) {
    return *std::ranges::find(kDrawn, pattern.name,
                              [](const DrawnPattern& entry) { return entry.pattern.name; });
}

class StillSource final : public FrameSource {
  public:
    explicit StillSource(Surface picture) : picture_(std::move(picture)) {}

    bool next(Surface& frame) override {
        frame = picture_;
        return true;
    }

  private:
    Surface picture_;
};

class PatternSource final : public FrameSource {
  public:
    PatternSource(const DrawnPattern& pattern, unsigned width, unsigned height, std::uint64_t seed)
        : pattern_(pattern), width_(width), height_(height), moment_{0, seed} {}

    bool next(Surface& frame) override {
        const bool drawn = frame.width == width_ && frame.height == height_ && moment_.frame > 0;
        if (!drawn) {
            frame = Surface(width_, height_);
        }
        if (!drawn || pattern_.pattern.moves) {
            pattern_.draw(frame, moment_);
        }
        moment_.frame++;
        return true;
    }

  private:
    const DrawnPattern& pattern_;
    unsigned width_;
    unsigned height_;
    Moment moment_;
};

class RawVideoSource final : public FrameSource {
  public:
    RawVideoSource(const std::string& file, unsigned width, unsigned height)
        : name_(support::inputName(file)), width_(width), height_(height),
          stream_(file == "-" ? stdin : std::fopen(file.c_str(), "rb")) {
        if (stream_ == nullptr) {
            throw InputError("cannot read " + name_ + ": " + std::strerror(errno));
        }
    }

    ~RawVideoSource() override {
        if (stream_ != stdin) {
            std::fclose(stream_);
        }
    }

    bool next(Surface& frame) override {
        if (frame.width != width_ || frame.height != height_) {
            frame = Surface(width_, height_);
        }
        const std::size_t wanted = frame.pixels.size() * sizeof(Pixel);
        const std::size_t got = std::fread(frame.pixels.data(), 1, wanted, stream_);
        if (got == 0 && !std::ferror(stream_)) {
            return false;
        }
        if (got != wanted) {
            throw InputError(name_ + " ends inside frame " + std::to_string(frames_ + 1) + ": " +
                             std::to_string(got) + " of " + std::to_string(wanted) + " bytes (" +
                             std::to_string(width_) + " x " + std::to_string(height_) +
                             " pixels of 4 bytes)");
        }
        frames_++;
        return true;
    }

  private:
    std::string name_;
    unsigned width_;
    unsigned height_;
    std::FILE* stream_;
    std::uint64_t frames_ = 0;
};

} // namespace

std::unique_ptr<FrameSource> stillSource(Surface picture) {
    return std::make_unique<StillSource>(std::move(picture));
}

std::span<const Pattern> patterns() {
    return kPatterns;
}

const Pattern* findPattern(std::string_view name) {
    const auto found = std::ranges::find(kPatterns, name, &Pattern::name);
    return found == kPatterns.end() ? nullptr : &*found;
}

Surface drawPattern(const Pattern& pattern, unsigned width, unsigned height, std::uint64_t frame,
                    std::uint64_t seed) {
    Surface picture(width, height);
    drawnPattern(pattern).draw(picture, {frame, seed});
    return picture;
}

std::unique_ptr<FrameSource> patternSource(const Pattern& pattern, unsigned width, unsigned height,
                                           std::uint64_t seed) {
    return std::make_unique<PatternSource>(drawnPattern(pattern), width, height, seed);
}

std::unique_ptr<FrameSource> rawVideoSource(const std::string& file, unsigned width, unsigned height) {
    return std::make_unique<RawVideoSource>(file, width, height);
}

} // namespace desktop
