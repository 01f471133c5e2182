// What the monitor must show, computed pixel by pixel and independently of the driver.
#pragma once

#include "desktop/pointer.h"
#include "device/client_abi.h"
#include "support/surface.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace rig {

// The state of the desktop after the client's commands, and the frame that the driver must send for it.
class DesktopReference {
  public:
    void createFrameBuffer(unsigned width, unsigned height);
    void setRotation(DISPLAY_ROTATION rotation) { rotation_ = rotation; }
    void setPointer(const desktop::PointerImage& shape);
    void movePointer(int x, int y, bool visible);
    void present(const support::Surface& frame);

    // Nothing before the first present.
    const std::optional<support::Surface>& picture() const { return drawn_; }

  private:
    void drawPointer(support::Surface& frame) const;

    unsigned desktopWidth_ = 0;
    unsigned desktopHeight_ = 0;
    DISPLAY_ROTATION rotation_ = ROTATION_NONE;
    std::optional<desktop::PointerImage> shape_;
    DISPLAY_ROTATION shapeRotation_ = ROTATION_NONE; // in force when the shape was set
    int lastX_ = 0;                                  // as given by the client
    int lastY_ = 0;
    bool lastVisible_ = false;
    int x_ = 0; // after rotation
    int y_ = 0;
    std::optional<support::Surface> presented_;
    std::optional<support::Surface> drawn_; // the frame with the pointer, as last sent
};

// The formats in which pixels reach the adapter.
enum class WireFormat : std::uint8_t { Bgr24, Rgb565, Rgb555, Rgb8 };
constexpr unsigned bytesPerPixel(WireFormat format) {
    return format == WireFormat::Bgr24 ? 3 : format == WireFormat::Rgb8 ? 1 : 2;
}

// One pixel in a wire format, as a little-endian number: the high bits of each channel.
std::uint32_t reduce(support::Pixel pixel, WireFormat format);

// How a frame was encoded, which determines the bits of a pixel that the monitor shows.
enum class Encoding : std::uint8_t {
    Plain,     // unchanged
    Exact,     // run stream whose literals carry all but the lowest red bit (24 bits per pixel)
    Quantized, // run stream of 16-bit pixels, quantized per level first
    Tolerant,  // run stream in which a pixel may replace similar ones after it
};

// Levels: `Quantized` 0 to 11, `Tolerant` 0 to 12; the others know only 0.
unsigned levelCount(Encoding encoding);

// The frame memory of the adapter after it has received `picture`: bytes without padding between rows.
// `leadIn` is the number of literals at the beginning of a tolerant stream that old adapters need.
std::vector<std::uint8_t> expectedFrame(const support::Surface& picture, WireFormat format, Encoding encoding,
                                        unsigned level = 0, std::size_t leadIn = 0);

// The first difference between two frames, and the number of different pixels. A pixel that only one frame
// has counts as different.
struct Difference {
    unsigned x = 0;
    unsigned y = 0;
    std::uint32_t expected = 0; // the pixels as little-endian numbers
    std::uint32_t shown = 0;
    std::size_t pixels = 0;

    std::string text(WireFormat format) const;
};
std::optional<Difference> compareFrames(std::span<const std::uint8_t> expected,
                                        std::span<const std::uint8_t> shown, unsigned width,
                                        unsigned bytesPerPixel);

} // namespace rig
