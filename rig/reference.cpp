#include "rig/reference.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace rig {

namespace {

using support::Pixel;
using support::Surface;

bool maskBit(const desktop::PointerImage& shape, std::size_t maskStart, unsigned column, unsigned row) {
    const std::uint8_t byte = shape.bits[maskStart + std::size_t{row} * shape.pitch + column / 8];
    return (byte >> (7 - column % 8) & 1) != 0;
}

// One pixel of the shape, in the client's orientation, over one pixel of the frame.
Pixel over(const desktop::PointerImage& shape, unsigned column, unsigned row, Pixel below) {
    if (shape.type == POINTER_MONOCHROME) {
        const bool keep = maskBit(shape, 0, column, row);
        const bool invert = maskBit(shape, std::size_t{shape.pitch} * shape.height, column, row);
        const Pixel kept = keep ? below : 0;
        return invert ? ~kept : kept;
    }
    const std::uint8_t* source = &shape.bits[std::size_t{row} * shape.pitch + std::size_t{column} * 4];
    Pixel result = below & 0xFF000000;
    for (unsigned channel = 0; channel < 3; channel++) {
        const int under = static_cast<int>(below >> (8 * channel) & 0xFF);
        const int above = source[channel];
        int mixed;
        if (shape.type == POINTER_COLOR_ALPHA) {
            mixed = under + (above - under) * source[3] / 255;
        } else {
            mixed = source[3] == 0 ? above : above ^ under;
        }
        result |= static_cast<Pixel>(mixed) << (8 * channel);
    }
    return result;
}

// The pixel of the shape, in the client's orientation, that is shown at a place of the rotated shape.
struct ShapePlace {
    unsigned column;
    unsigned row;
};
ShapePlace turnBack(DISPLAY_ROTATION rotation, unsigned width, unsigned height, unsigned x, unsigned y) {
    switch (rotation) {
    case ROTATION_QUARTER:
        return {width - 1 - y, x};
    case ROTATION_HALF:
        return {width - 1 - x, height - 1 - y};
    case ROTATION_THREE_QUARTERS:
        return {y, height - 1 - x};
    default:
        return {x, y};
    }
}

bool isQuarterTurn(DISPLAY_ROTATION rotation) {
    return rotation == ROTATION_QUARTER || rotation == ROTATION_THREE_QUARTERS;
}

} // namespace

void DesktopReference::createFrameBuffer(unsigned width, unsigned height) {
    desktopWidth_ = width;
    desktopHeight_ = height;
}

void DesktopReference::setPointer(const desktop::PointerImage& shape) {
    shape_ = shape;
    shapeRotation_ = rotation_;
    if (presented_) {
        drawn_ = *presented_;
        drawPointer(*drawn_);
    }
}

void DesktopReference::movePointer(int x, int y, bool visible) {
    const int shapeWidth = shape_ ? static_cast<int>(shape_->width) : 0;
    const int shapeHeight = shape_ ? static_cast<int>(shape_->height) : 0;
    const int width = static_cast<int>(desktopWidth_);
    const int height = static_cast<int>(desktopHeight_);
    switch (rotation_) {
    case ROTATION_QUARTER:
        x_ = y;
        y_ = height - shapeWidth - x;
        break;
    case ROTATION_HALF:
        x_ = width - shapeWidth - x;
        y_ = height - shapeHeight - y;
        break;
    case ROTATION_THREE_QUARTERS:
        x_ = width - shapeHeight - y;
        y_ = x;
        break;
    default:
        x_ = x;
        y_ = y;
        break;
    }
    // A move to the same place does not send the frame again, unless it is the first one after a rotation.
    const bool changed = x != lastX_ || y != lastY_ || visible != lastVisible_ || shapeRotation_ != rotation_;
    shapeRotation_ = rotation_;
    lastX_ = x;
    lastY_ = y;
    lastVisible_ = visible;
    if (changed && presented_) {
        drawn_ = *presented_;
        drawPointer(*drawn_);
    }
}

void DesktopReference::present(const Surface& frame) {
    presented_ = frame;
    drawn_ = frame;
    drawPointer(*drawn_);
}

void DesktopReference::drawPointer(Surface& frame) const {
    if (!lastVisible_ || !shape_) {
        return;
    }
    const bool turned = isQuarterTurn(shapeRotation_);
    const unsigned width = turned ? shape_->height : shape_->width;
    const unsigned height = turned ? shape_->width : shape_->height;
    for (unsigned row = 0; row < height; row++) {
        for (unsigned column = 0; column < width; column++) {
            const std::int64_t x = std::int64_t{x_} + column;
            const std::int64_t y = std::int64_t{y_} + row;
            // The last column and the last row of a frame never carry the pointer.
            if (x < 0 || y < 0 || x >= std::int64_t{frame.width} - 1 || y >= std::int64_t{frame.height} - 1) {
                continue;
            }
            const ShapePlace place = turnBack(shapeRotation_, shape_->width, shape_->height, column, row);
            Pixel& pixel = frame.at(static_cast<unsigned>(x), static_cast<unsigned>(y));
            pixel = over(*shape_, place.column, place.row, pixel);
        }
    }
}

std::uint32_t reduce(Pixel pixel, WireFormat format) {
    const std::uint32_t blue = pixel & 0xFF;
    const std::uint32_t green = pixel >> 8 & 0xFF;
    const std::uint32_t red = pixel >> 16 & 0xFF;
    switch (format) {
    case WireFormat::Bgr24:
        return red << 16 | green << 8 | blue;
    case WireFormat::Rgb565:
        return (red >> 3) << 11 | (green >> 2) << 5 | blue >> 3;
    case WireFormat::Rgb555:
        return (red >> 3) << 10 | (green >> 3) << 5 | blue >> 3;
    case WireFormat::Rgb8:
        return (red >> 6) << 6 | (green >> 5) << 3 | blue >> 5;
    }
    return 0;
}

namespace {

// Per level of the quantizing encoder: the bits that are kept and those that are set.
struct Quantization {
    std::uint32_t keep;
    std::uint32_t fill;
};
constexpr std::array<Quantization, 12> kQuantization = {{
    {0x7FFF, 0x0001},
    {0x7FFE, 0x0001},
    {0x7BFE, 0x0001},
    {0x7BDE, 0x0001},
    {0x7BDC, 0x0021},
    {0x73DC, 0x0021},
    {0x739C, 0x0021},
    {0x7398, 0x0021},
    {0x6398, 0x0421},
    {0x6318, 0x0421},
    {0x6310, 0x0421},
    {0x4310, 0x0421},
}};

// Per level of the tolerant encoder: the bits in which a pixel may differ from the one it repeats.
constexpr std::array<std::uint32_t, 13> kTolerance = {
    0x000000, 0x010101, 0x030303, 0x070707, 0x000000, 0x000000, 0x0F0F0F,
    0x000000, 0x1F1F1F, 0x1F3F1F, 0x3F3F3F, 0x7F3F7F, 0x7F7F7F,
};

// The bit that a literal of a run stream cannot carry, because the literal's highest bit marks it as one: the
// highest bit of a 16-bit pixel, the lowest bit of an 8-bit pixel, the lowest bit of a 24-bit pixel's red.
std::uint32_t lostInLiteral(WireFormat format) {
    return format == WireFormat::Bgr24 ? 0x010000 : format == WireFormat::Rgb8 ? 0x01 : 0x8000;
}

// The pixels that a tolerant stream decodes to. A pixel repeats the last literal when it differs from the
// literal in tolerated bits only, unless the pixel before it had the same value and that value is not the
// literal's.
class TolerantRun {
  public:
    TolerantRun(unsigned level, std::uint32_t lost, std::size_t leadIn)
        : tolerance_(kTolerance[level]), lost_(lost), leadIn_(leadIn) {}

    std::uint32_t decode(std::uint32_t value) {
        const bool similar = ((value ^ literal_) & ~tolerance_) == 0;
        const bool settled = value != literal_ && value == previous_;
        if (index_ < leadIn_ || index_ == 0 || !similar || settled) {
            literal_ = value;
        }
        previous_ = value;
        index_++;
        return literal_ & ~lost_;
    }

  private:
    std::uint32_t tolerance_;
    std::uint32_t lost_;
    std::size_t leadIn_;
    std::size_t index_ = 0;
    std::uint32_t literal_ = 0;
    std::uint32_t previous_ = 0;
};

template <typename Convert>
std::vector<std::uint8_t> convertFrame(const Surface& picture, WireFormat format, Convert convert) {
    const unsigned bytes = bytesPerPixel(format);
    std::vector<std::uint8_t> frame(picture.pixels.size() * bytes);
    std::uint8_t* to = frame.data();
    for (const Pixel pixel : picture.pixels) {
        const std::uint32_t value = convert(reduce(pixel, format));
        for (unsigned byte = 0; byte < bytes; byte++) {
            *to++ = static_cast<std::uint8_t>(value >> (8 * byte));
        }
    }
    return frame;
}

} // namespace

unsigned levelCount(Encoding encoding) {
    switch (encoding) {
    case Encoding::Quantized:
        return kQuantization.size();
    case Encoding::Tolerant:
        return kTolerance.size();
    default:
        return 1;
    }
}

std::vector<std::uint8_t> expectedFrame(const Surface& picture, WireFormat format, Encoding encoding,
                                        unsigned level, std::size_t leadIn) {
    const std::uint32_t lost = lostInLiteral(format);
    switch (encoding) {
    case Encoding::Exact:
        return convertFrame(picture, format, [lost](std::uint32_t value) { return value & ~lost; });
    case Encoding::Quantized: {
        const Quantization rule = kQuantization.at(level);
        return convertFrame(picture, format,
                            [rule](std::uint32_t value) { return (value & rule.keep) | rule.fill; });
    }
    case Encoding::Tolerant: {
        TolerantRun run(level, lost, leadIn);
        return convertFrame(picture, format, [&run](std::uint32_t value) { return run.decode(value); });
    }
    case Encoding::Plain:
        break;
    }
    return convertFrame(picture, format, [](std::uint32_t value) { return value; });
}

std::string Difference::text(WireFormat format) const {
    const int digits = static_cast<int>(2 * bytesPerPixel(format));
    char line[160];
    std::snprintf(line, sizeof line, "pixel (%u, %u) is 0x%0*X, expected 0x%0*X; %zu pixels differ", x, y,
                  digits, shown, digits, expected, pixels);
    return line;
}

std::optional<Difference> compareFrames(std::span<const std::uint8_t> expected,
                                        std::span<const std::uint8_t> shown, unsigned width,
                                        unsigned bytesPerPixel) {
    const auto value = [bytesPerPixel](std::span<const std::uint8_t> frame, std::size_t pixel) {
        std::uint32_t result = 0;
        for (unsigned byte = bytesPerPixel; byte-- > 0;) {
            result = result << 8 | frame[pixel * bytesPerPixel + byte];
        }
        return result;
    };
    std::optional<Difference> difference;
    const std::size_t common = std::min(expected.size(), shown.size()) / bytesPerPixel;
    const std::size_t all = std::max(expected.size(), shown.size()) / bytesPerPixel;
    for (std::size_t pixel = 0; pixel < all; pixel++) {
        const std::uint32_t want = pixel < common ? value(expected, pixel) : 0;
        const std::uint32_t got = pixel < common ? value(shown, pixel) : ~want;
        if (want == got) {
            continue;
        }
        if (!difference) {
            difference = Difference{static_cast<unsigned>(pixel % width),
                                    static_cast<unsigned>(pixel / width), want, got, 0};
        }
        difference->pixels++;
    }
    return difference;
}

} // namespace rig
