// What the monitor must show, worked out independently of the driver: slowly, pixel by pixel, from the rules
// alone.
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

// The desktop as the driver has been told of it, and the frame that it must have on the way to the monitor.
class DesktopReference {
  public:
    void createFrameBuffer(unsigned width, unsigned height);
    void setRotation(DISPLAY_ROTATION rotation) { rotation_ = rotation; }
    void setPointer(const desktop::PointerImage& shape);
    void movePointer(int x, int y, bool visible);
    void present(const support::Surface& frame);

    // Nothing presented is left: the client has closed the driver or its adapter is gone.
    void forgetFrames();

    // Nothing before the first present.
    const std::optional<support::Surface>& picture() const { return drawn_; }

  private:
    void drawPointer(support::Surface& frame) const;

    unsigned desktopWidth_ = 0;
    unsigned desktopHeight_ = 0;
    DISPLAY_ROTATION rotation_ = ROTATION_NONE;
    std::optional<desktop::PointerImage> shape_;
    DISPLAY_ROTATION shapeRotation_ = ROTATION_NONE; // in force when the shape was set
    int lastX_ = 0;                                  // as the client gave them
    int lastY_ = 0;
    bool lastVisible_ = false;
    int x_ = 0; // after rotation
    int y_ = 0;
    std::optional<support::Surface> presented_;
    std::optional<support::Surface> drawn_; // the frame with the pointer as of the last hand-over
};

// The formats in which pixels reach the adapter.
enum class WireFormat : std::uint8_t { Bgr24, Rgb565, Rgb555, Rgb8 };
constexpr unsigned bytesPerPixel(WireFormat format) {
    return format == WireFormat::Bgr24 ? 3 : format == WireFormat::Rgb8 ? 1 : 2;
}

// One pixel in a wire format, as a little-endian number: the high bits of each channel.
std::uint32_t reduce(support::Pixel pixel, WireFormat format);

// How a frame was encoded, which decides what of a pixel survives.
enum class Encoding : std::uint8_t {
    Plain,     // as it is
    Exact,     // run stream whose literals carry all but the lowest red bit (24 bits per pixel)
    Quantised, // run stream of 16-bit pixels, quantised per level first
    Tolerant,  // run stream in which a pixel may stand for similar ones after it
};

// Levels: `Quantised` 0 to 11, `Tolerant` 0 to 12; the others know only 0.
unsigned levelCount(Encoding encoding);

// The frame memory of the adapter after `picture` has come through: bytes without padding between rows.
// `leadIn` is the number of pixels that a tolerant stream begins with unmerged, as old adapters want it.
std::vector<std::uint8_t> expectedFrame(const support::Surface& picture, WireFormat format, Encoding encoding,
                                        unsigned level = 0, std::size_t leadIn = 0);

// The first difference between two frames, and how many pixels differ; pixels that only one of them has do.
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
