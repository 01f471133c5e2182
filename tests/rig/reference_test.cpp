// The reference, compared with worked examples and with a second pointer drawing, which rotates whole shapes,
// while the reference looks up each pixel.
#include "rig/reference.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstring>
#include <string>

namespace rig {
namespace {

using desktop::PointerImage;
using support::makePixel;
using support::Pixel;
using support::Surface;

Surface patchwork(unsigned width, unsigned height, std::uint32_t seed = 1) {
    Surface surface(width, height);
    for (Pixel& pixel : surface.pixels) {
        seed = seed * 1664525u + 1013904223u;
        pixel = seed;
    }
    return surface;
}

PointerImage colorShape(POINTER_TYPE type, unsigned width, unsigned height, Pixel color) {
    const Surface picture(width, height, color);
    PointerImage image{type, width, height, width * 4, {}};
    image.bits.resize(picture.pixels.size() * 4);
    std::memcpy(image.bits.data(), picture.pixels.data(), image.bits.size());
    return image;
}

struct Box {
    unsigned left, top, right, bottom; // last column and row included
    bool operator==(const Box&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Box& box) {
    return out << box.left << "," << box.top << " to " << box.right << "," << box.bottom;
}

// The part of the frame that the pointer changed; nothing when no pixel differs.
std::optional<Box> changed(const Surface& before, const Surface& after) {
    std::optional<Box> box;
    for (unsigned y = 0; y < before.height; y++) {
        for (unsigned x = 0; x < before.width; x++) {
            if (before.at(x, y) != after.at(x, y)) {
                box =
                    box ? Box{std::min(box->left, x), box->top, std::max(box->right, x), y} : Box{x, y, x, y};
            }
        }
    }
    return box;
}

TEST(Reference, PlacesAndClipsThePointer) {
    struct Case {
        const char* what;
        unsigned width, height; // of the shape
        DISPLAY_ROTATION rotation;
        int x, y;
        std::optional<Box> box;
    };
    const Case cases[] = {
        {"inside", 32, 32, ROTATION_NONE, 100, 50, Box{100, 50, 131, 81}},
        {"left edge", 32, 32, ROTATION_NONE, -5, 10, Box{0, 10, 26, 41}},
        {"top edge", 32, 32, ROTATION_NONE, 7, -31, Box{7, 0, 38, 0}},
        {"the last column stays free", 32, 32, ROTATION_NONE, 1920 - 32, 0, Box{1888, 0, 1918, 31}},
        {"the last row stays free", 32, 32, ROTATION_NONE, 0, 1080 - 32, Box{0, 1048, 31, 1078}},
        {"one column short of it", 32, 32, ROTATION_NONE, 1920 - 33, 0, Box{1887, 0, 1918, 31}},
        {"on the last column", 32, 32, ROTATION_NONE, 1919, 5, std::nullopt},
        {"left of everything", 32, 32, ROTATION_NONE, -32, 10, std::nullopt},
        {"right of everything", 32, 32, ROTATION_NONE, 1920, 10, std::nullopt},
        {"far away", 32, 32, ROTATION_NONE, 0x7FFFFFFF, 0, std::nullopt},
        {"half turn at the origin", 32, 32, ROTATION_HALF, 0, 0, Box{1888, 1048, 1918, 1078}},
        {"quarter turn swaps the sides", 40, 20, ROTATION_QUARTER, 100, 10, Box{10, 940, 29, 979}},
        {"three quarters", 40, 20, ROTATION_THREE_QUARTERS, 100, 10, Box{1890, 100, 1909, 139}},
    };
    const Surface frame(1920, 1080, 0xFF000000);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        DesktopReference reference;
        reference.createFrameBuffer(1920, 1080);
        reference.setRotation(c.rotation);
        reference.setPointer(colorShape(POINTER_COLOR_ALPHA, c.width, c.height, 0xFFFFFFFF));
        reference.movePointer(c.x, c.y, true);
        reference.present(frame);
        EXPECT_EQ(changed(frame, *reference.picture()), c.box);
    }
}

TEST(Reference, BlendsEachKindOfPointer) {
    struct Case {
        const char* what;
        PointerImage shape;
        Pixel below, result;
    };
    const auto monochrome = [](std::uint8_t andMask, std::uint8_t xorMask) {
        return PointerImage{POINTER_MONOCHROME, 1, 1, 1, {andMask, xorMask}};
    };
    const Case cases[] = {
        {"transparent", monochrome(0x80, 0x00), 0x12345678, 0x12345678},
        {"inverted, all 32 bits", monochrome(0x80, 0x80), 0x12345678, 0xEDCBA987},
        {"white", monochrome(0x00, 0x80), 0x12345678, 0xFFFFFFFF},
        {"black", monochrome(0x00, 0x00), 0x12345678, 0x00000000},
        {"opaque", colorShape(POINTER_COLOR_ALPHA, 1, 1, 0xFFA0B0C0), 0x12345678, 0x12A0B0C0},
        {"alpha 0", colorShape(POINTER_COLOR_ALPHA, 1, 1, 0x00A0B0C0), 0x12345678, 0x12345678},
        // 200 + (10 - 200) * 100 / 255 = 200 - 74.5, and 10 + (200 - 10) * 100 / 255 = 10 + 74.5: toward 0.
        {"division toward zero", colorShape(POINTER_COLOR_ALPHA, 1, 1, 0x640A0AC8), 0x00C8C80A, 0x007E7E54},
        {"mask 0 replaces", colorShape(POINTER_COLOR_MASKED, 1, 1, 0x00A0B0C0), 0x12345678, 0x12A0B0C0},
        {"any other mask inverts", colorShape(POINTER_COLOR_MASKED, 1, 1, 0x01A0B0C0), 0x12345678,
         0x1294E6B8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        DesktopReference reference;
        reference.createFrameBuffer(8, 8);
        reference.setPointer(c.shape);
        reference.movePointer(3, 4, true);
        reference.present(Surface(8, 8, c.below));
        EXPECT_EQ(reference.picture()->at(3, 4), c.result);
        EXPECT_EQ(reference.picture()->at(4, 4), c.below);
    }
}

// The rotated shape: each pixel is copied to its new place.
Surface turned(const Surface& shape, DISPLAY_ROTATION rotation) {
    if (rotation == ROTATION_NONE) {
        return shape;
    }
    const bool half = rotation == ROTATION_HALF;
    Surface result(half ? shape.width : shape.height, half ? shape.height : shape.width);
    for (unsigned r = 0; r < shape.height; r++) {
        for (unsigned c = 0; c < shape.width; c++) {
            switch (rotation) {
            case ROTATION_QUARTER:
                result.at(r, shape.width - 1 - c) = shape.at(c, r);
                break;
            case ROTATION_HALF:
                result.at(shape.width - 1 - c, shape.height - 1 - r) = shape.at(c, r);
                break;
            default:
                result.at(shape.height - 1 - r, c) = shape.at(c, r);
                break;
            }
        }
    }
    return result;
}

RC_GTEST_PROP(Reference, TurnsShapesOfAnySides, ()) {
    const unsigned width = *rc::gen::inRange(1u, 20u);
    const unsigned height = *rc::gen::inRange(1u, 20u);
    const auto rotation = static_cast<DISPLAY_ROTATION>(*rc::gen::inRange(1, 5));
    const Surface shape = patchwork(width, height, *rc::gen::arbitrary<std::uint32_t>());
    PointerImage image{POINTER_COLOR_MASKED, width, height, width * 4, {}};
    image.bits.resize(shape.pixels.size() * 4);
    std::memcpy(image.bits.data(), shape.pixels.data(), image.bits.size());

    const Surface frame = patchwork(64, 64);
    DesktopReference reference;
    reference.createFrameBuffer(64, 64);
    reference.setRotation(rotation);
    reference.setPointer(image);
    reference.movePointer(20, 16, true);
    reference.present(frame);

    const Surface sheet = turned(shape, rotation);
    const std::optional<Box> box = changed(frame, *reference.picture());
    for (unsigned y = 0; box && y < sheet.height; y++) {
        for (unsigned x = 0; x < sheet.width; x++) {
            const unsigned left = rotation == ROTATION_QUARTER ? 16
                                  : rotation == ROTATION_NONE  ? 20
                                  : rotation == ROTATION_HALF  ? 64 - width - 20
                                                               : 64 - height - 16;
            const unsigned top = rotation == ROTATION_QUARTER ? 64 - width - 20
                                 : rotation == ROTATION_NONE  ? 16
                                 : rotation == ROTATION_HALF  ? 64 - height - 16
                                                              : 20;
            const Pixel above = sheet.at(x, y);
            const Pixel below = frame.at(left + x, top + y);
            const Pixel mixed = (above >> 24) == 0 ? above : above ^ below;
            RC_ASSERT(reference.picture()->at(left + x, top + y) ==
                      ((mixed & 0xFFFFFF) | (below & 0xFF000000)));
        }
    }
}

TEST(Reference, FollowsTheOrderOfCommands) {
    const Surface frame(64, 64, 0xFF000000);
    const PointerImage shape = colorShape(POINTER_COLOR_ALPHA, 4, 4, 0xFFFFFFFF);
    DesktopReference reference;
    reference.createFrameBuffer(64, 64);
    EXPECT_FALSE(reference.picture()) << "nothing was presented";
    reference.setPointer(shape);
    reference.present(frame);
    EXPECT_EQ(changed(frame, *reference.picture()), std::nullopt) << "a pointer is hidden at first";
    reference.movePointer(8, 8, true);
    reference.movePointer(20, 30, true);
    EXPECT_EQ(changed(frame, *reference.picture()), (Box{20, 30, 23, 33})) << "no trace of the first place";
    reference.setRotation(ROTATION_HALF);
    EXPECT_EQ(changed(frame, *reference.picture()), (Box{20, 30, 23, 33}))
        << "waits for the next pointer command";
    reference.movePointer(20, 30, true);
    EXPECT_EQ(changed(frame, *reference.picture()), (Box{40, 30, 43, 33})) << "the rotation moves it";
    reference.movePointer(20, 30, false);
    EXPECT_EQ(changed(frame, *reference.picture()), std::nullopt);
}

std::string hex(const std::vector<std::uint8_t>& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr char digits[] = "0123456789ABCDEF";
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

// A surface of one row whose pixels reduce to the given 16-bit (RGB555) or 24-bit values.
Surface rowOf555(std::initializer_list<unsigned> values) {
    Surface row(static_cast<unsigned>(values.size()), 1);
    unsigned x = 0;
    for (const unsigned value : values) {
        row.at(x++, 0) = makePixel((value >> 10 & 31) << 3, (value >> 5 & 31) << 3, (value & 31) << 3);
    }
    return row;
}

TEST(Reference, GivesTheBytesOfEachEncoding) {
    const Surface odd(1, 1, makePixel(0x2B, 0x2E, 0x1C));
    const Surface white(1, 1, 0x00FFFFFF);
    struct Case {
        const char* what;
        Surface picture;
        WireFormat format;
        Encoding encoding;
        unsigned level;
        std::size_t leadIn;
        const char* bytes;
    };
    const Case cases[] = {
        {"24 bits", odd, WireFormat::Bgr24, Encoding::Plain, 0, 0, "1C2E2B"},
        {"RGB565", odd, WireFormat::Rgb565, Encoding::Plain, 0, 0, "6329"},
        {"RGB555", odd, WireFormat::Rgb555, Encoding::Plain, 0, 0, "A314"},
        {"RGB8", odd, WireFormat::Rgb8, Encoding::Plain, 0, 0, "08"},
        {"white, RGB555", white, WireFormat::Rgb555, Encoding::Plain, 0, 0, "FF7F"},
        {"exact: the lowest red bit is lost", odd, WireFormat::Bgr24, Encoding::Exact, 0, 0, "1C2E2A"},
        {"quantized 0", rowOf555({0x1234}), WireFormat::Rgb555, Encoding::Quantized, 0, 0, "3512"},
        {"quantized 6", rowOf555({0x7FFF, 0}), WireFormat::Rgb555, Encoding::Quantized, 6, 0, "BD732100"},
        {"quantized 11", rowOf555({0x7FFF, 0}), WireFormat::Rgb555, Encoding::Quantized, 11, 0, "31472104"},
        {"tolerant 0 is exact", rowOf555({0x1234, 0x1235}), WireFormat::Rgb555, Encoding::Tolerant, 0, 0,
         "34123512"},
        {"tolerant 1", rowOf555({0x1234, 0x1235, 0x1235, 0x1234, 0x1236}), WireFormat::Rgb555,
         Encoding::Tolerant, 1, 0, "34123412351235123612"},
        {"tolerant 1 after a lead-in", rowOf555({0x1234, 0x1235, 0x1234, 0x1235}), WireFormat::Rgb555,
         Encoding::Tolerant, 1, 2, "3412351235123512"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(hex(expectedFrame(c.picture, c.format, c.encoding, c.level, c.leadIn)), c.bytes);
    }
}

TEST(Reference, NamesTheFirstDifference) {
    const std::vector<std::uint8_t> expected = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::vector<std::uint8_t> shown = expected;
    EXPECT_FALSE(compareFrames(expected, shown, 2, 3));
    shown[7] = 0xEE;
    shown[9] = 0;
    const std::optional<Difference> difference = compareFrames(expected, shown, 2, 3);
    ASSERT_TRUE(difference);
    EXPECT_EQ(difference->text(WireFormat::Bgr24),
              "pixel (0, 1) is 0x09EE07, expected 0x090807; 2 pixels differ");
    shown.resize(9);
    EXPECT_EQ(compareFrames(expected, shown, 2, 3)->pixels, 2u) << "a pixel that is missing differs";
}

} // namespace
} // namespace rig
