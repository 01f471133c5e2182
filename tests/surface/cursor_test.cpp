// The software pointer: rotation, clipping, blending, and drawing into a frame with the dimensions of a
// client.
#include "platform/kernel/fault_points.h"
#include "platform/kernel/scheduler.h"
#include "surface/cursor_drawing.h"
#include "surface/cursor_shape.h"
#include "surface/frame_buffer.h"
#include "surface/frame_pixels.h"
#include "surface/pointer.h"
#include "surface/present.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr LONG kLongMin = -0x7FFFFFFF - 1;
constexpr LONG kLongMax = 0x7FFFFFFF;
constexpr ULONG kUlongMax = 0xFFFFFFFF;

struct ShapeSize {
    ULONG type;
    ULONG width;
    ULONG height;
    ULONG padding; // bytes that the pitch has beyond the packed row
};

bool isMonochrome(ULONG type) {
    return type == POINTER_MONOCHROME;
}

// A client's shape with its bits in a block of their exact size, so that AddressSanitizer sees a read past
// it.
struct Shape {
    POINTER_SHAPE record = {};
    Bytes bits;

    explicit Shape(const ShapeSize& size, unsigned seed = 1) {
        record.Type = size.type;
        record.Width = size.width;
        record.Height = size.height;
        record.Pitch = (isMonochrome(size.type) ? (size.width + 7) / 8 : size.width * 4) + size.padding;
        bits.resize(std::size_t{record.Pitch} * record.Height * (isMonochrome(size.type) ? 2 : 1));
        std::mt19937 random(seed);
        for (std::uint8_t& byte : bits) {
            byte = static_cast<std::uint8_t>(random());
        }
        record.Bits = bits.data();
    }
};

// A pixel of an image: a color, or AND bit and XOR bit.
std::uint32_t imagePixel(const CURSOR_IMAGE& image, ULONG column, ULONG row) {
    if (!isMonochrome(image.Type)) {
        std::uint32_t pixel;
        std::memcpy(&pixel, image.Bits + row * image.Pitch + column * 4, sizeof(pixel));
        return pixel;
    }
    const auto bit = [&](const UCHAR* mask) {
        return static_cast<std::uint32_t>(mask[row * image.Pitch + column / 8] >> (7 - column % 8) & 1);
    };
    return bit(image.Bits) << 1 | bit(image.Bits + image.Height * image.Pitch);
}

// An image between two arrays of guard bytes.
struct GuardedImage {
    static constexpr std::uint8_t kGuard = 0xA5;
    std::uint8_t before[64];
    CURSOR_IMAGE image;
    std::uint8_t after[64];

    bool guardsIntact() const {
        return std::all_of(std::begin(before), std::end(before), [](auto b) { return b == kGuard; }) &&
               std::all_of(std::begin(after), std::end(after), [](auto b) { return b == kGuard; });
    }
};

std::unique_ptr<GuardedImage> makeImage() {
    auto guarded = std::make_unique<GuardedImage>();
    std::memset(guarded.get(), GuardedImage::kGuard, sizeof(*guarded));
    guarded->image.Type = guarded->image.Width = guarded->image.Height = guarded->image.Pitch = 0;
    return guarded;
}

const ShapeSize kShapeSizes[] = {
    {POINTER_COLOR_ALPHA, 32, 32, 0},   {POINTER_COLOR_ALPHA, 5, 3, 0},  {POINTER_COLOR_MASKED, 3, 5, 3},
    {POINTER_COLOR_ALPHA, 256, 256, 0}, {POINTER_COLOR_MASKED, 1, 7, 1}, {POINTER_MONOCHROME, 32, 32, 0},
    {POINTER_MONOCHROME, 9, 20, 0},     {POINTER_MONOCHROME, 20, 9, 2},  {POINTER_MONOCHROME, 1, 3, 0},
    {POINTER_MONOCHROME, 64, 512, 0},
};

// The position in the frame of a point on the client's desktop: the frame is in the orientation of the panel,
// which is mounted rotated.
struct Point {
    LONG x;
    LONG y;
};
Point desktopToFrame(ULONG rotation, LONG desktopWidth, LONG desktopHeight, Point point) {
    switch (rotation) {
    case 2:
        return {point.y, desktopHeight - 1 - point.x};
    case 3:
        return {desktopWidth - 1 - point.x, desktopHeight - 1 - point.y};
    case 4:
        return {desktopWidth - 1 - point.y, point.x};
    default:
        return point;
    }
}

} // namespace

// Shape and position are rotated by separate computations, which must agree for every pixel.
TEST(CursorRotation, PutsEveryPixelAtItsPointOfTheDesktop) {
    constexpr LONG kDesktopWidth = 1920;
    constexpr LONG kDesktopHeight = 1080;
    for (const ShapeSize& size : kShapeSizes) {
        for (const ULONG rotation : {0u, 1u, 2u, 3u, 4u, 5u, kUlongMax}) {
            SCOPED_TRACE(testing::Message() << "type " << size.type << ", " << size.width << " x "
                                            << size.height << ", rotation " << rotation);
            const Shape shape(size);
            const auto source = makeImage();
            const auto rotated = makeImage();
            ASSERT_TRUE(CURSOR_StoreShape(&source->image, &shape.record));
            ASSERT_TRUE(CURSOR_RotateShape(&source->image, rotation, &rotated->image));
            for (const Point pointer : {Point{0, 0}, Point{100, 37}, Point{-7, 1079}}) {
                const CURSOR_POSITION position =
                    CURSOR_RotatePosition(rotation, kDesktopWidth, kDesktopHeight, size.width, size.height,
                                          static_cast<ULONG>(pointer.x), static_cast<ULONG>(pointer.y));
                unsigned wrong = 0;
                for (LONG row = 0; row < static_cast<LONG>(size.height); row++) {
                    for (LONG column = 0; column < static_cast<LONG>(size.width); column++) {
                        const Point frame = desktopToFrame(rotation, kDesktopWidth, kDesktopHeight,
                                                           {pointer.x + column, pointer.y + row});
                        const ULONG rotatedColumn = static_cast<ULONG>(frame.x - position.X);
                        const ULONG rotatedRow = static_cast<ULONG>(frame.y - position.Y);
                        ASSERT_LT(rotatedColumn, rotated->image.Width);
                        ASSERT_LT(rotatedRow, rotated->image.Height);
                        wrong +=
                            imagePixel(rotated->image, rotatedColumn, rotatedRow) !=
                            imagePixel(source->image, static_cast<ULONG>(column), static_cast<ULONG>(row));
                    }
                }
                EXPECT_EQ(wrong, 0u);
            }
            EXPECT_TRUE(source->guardsIntact());
            EXPECT_TRUE(rotated->guardsIntact());
        }
    }
}

TEST(CursorRotation, PositionsWrapAroundLikeTheClientsArithmetic) {
    const struct {
        ULONG rotation, width, height, x, y;
        LONG expectedX, expectedY;
    } cases[] = {
        {3, 32, 32, 0, 0, 1888, 1048},
        {1, 32, 32, 0xFFFFFFFB, 10, -5, 10},
        {2, 32, 16, 0x80000000, 7, 7, static_cast<LONG>(0x80000000u + 1080 - 32)},
        {3, kUlongMax, kUlongMax, 0, 0, 1921, 1081},
        {4, 8, kUlongMax, 3, kUlongMax, 1922, 3},
        {9, 32, 32, kUlongMax, 0x7FFFFFFF, -1, kLongMax},
    };
    for (const auto& c : cases) {
        const CURSOR_POSITION position =
            CURSOR_RotatePosition(c.rotation, 1920, 1080, c.width, c.height, c.x, c.y);
        EXPECT_EQ(position.X, c.expectedX) << "rotation " << c.rotation;
        EXPECT_EQ(position.Y, c.expectedY) << "rotation " << c.rotation;
    }
}

TEST(CursorShape, ThatDoesNotFitIsRefusedAndTheOldOneStays) {
    const struct {
        const char* what;
        ULONG type, width, height, pitch;
        bool accepted;
    } cases[] = {
        {"the largest color shape", 2, 256, 256, 1024, true},
        {"one row more than the largest", 2, 256, 257, 1024, false},
        {"the largest monochrome shape", 1, 1024, 1024, 128, true},
        {"one row more in each mask", 1, 1024, 1025, 128, false},
        {"rows shorter than their pixels", 2, 33, 8, 128, false},
        {"monochrome rows one byte short", 1, 33, 8, 4, false},
        {"monochrome rows just wide enough", 1, 32, 8, 4, true},
        {"a width whose bytes wrap around", 2, 0x40000001, 1, 4, false},
        {"a size that wraps to 0 in 32 bits", 2, 1, 0x80000000, 0x80000000, false},
        {"a size that wraps to 0 in 64 bits when doubled", 1, 1, kUlongMax, kUlongMax, false},
        {"everything at its largest", kUlongMax, kUlongMax, kUlongMax, kUlongMax, false},
        {"no rows", 2, 32, 0, 128, true},
        {"no columns, very many rows", 2, 0, kUlongMax, 0, false},
        {"one row that is too long when rotated by a quarter", 1, 1000000, 1, 125000, false},
    };
    const Shape oldShape({POINTER_COLOR_ALPHA, 4, 4, 0});
    const Bytes bits(2 * CURSOR_BITS_SIZE, 0x77);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto stored = makeImage();
        ASSERT_TRUE(CURSOR_StoreShape(&stored->image, &oldShape.record));
        const auto before = std::make_unique<CURSOR_IMAGE>(stored->image);
        POINTER_SHAPE shape = {};
        shape.Type = c.type;
        shape.Width = c.width;
        shape.Height = c.height;
        shape.Pitch = c.pitch;
        shape.Bits = bits.data();
        EXPECT_EQ(CURSOR_StoreShape(&stored->image, &shape) != FALSE, c.accepted);
        EXPECT_TRUE(stored->guardsIntact());
        if (!c.accepted) {
            EXPECT_EQ(std::memcmp(&stored->image, before.get(), sizeof(CURSOR_IMAGE)), 0);
            continue;
        }
        // Every stored shape can be shown in each rotation.
        const auto rotated = makeImage();
        for (const ULONG rotation : {1u, 2u, 3u, 4u}) {
            EXPECT_TRUE(CURSOR_RotateShape(&stored->image, rotation, &rotated->image)) << rotation;
            EXPECT_TRUE(rotated->guardsIntact());
        }
    }
    POINTER_SHAPE withoutBits = oldShape.record;
    withoutBits.Bits = nullptr;
    EXPECT_FALSE(CURSOR_StoreShape(&makeImage()->image, &withoutBits));
}

TEST(CursorClipping, KeepsThePointerOffTheLastColumnAndRow) {
    struct Axis {
        ULONG limit, length;
        LONG position;
        ULONG frame, skipped, drawn; // `drawn` 0: nothing
    };
    const Axis cases[] = {
        {1920, 32, -5, 0, 5, 27},
        {1920, 32, 1888, 1888, 0, 31},
        {1920, 32, 1887, 1887, 0, 32},
        {1920, 32, 1918, 1918, 0, 1},
        {1920, 32, 1919, 0, 0, 0},
        {1920, 32, 1920, 0, 0, 0},
        {1920, 32, -31, 0, 31, 1},
        {1920, 32, -32, 0, 0, 0},
        {1920, 0, 5, 0, 0, 0},
        {16, 64, -10, 0, 10, 15}, // cut on both sides
        {16, 64, 0, 0, 0, 15},
        {1, 32, 0, 0, 0, 0},
        {0, 32, 0, 0, 0, 0},
        {1920, kUlongMax, 0, 0, 0, 1919},
        {1920, kUlongMax, kLongMin, 0, 0x80000000, 1919},
        {1920, 32, kLongMin, 0, 0, 0},
        {1920, 32, kLongMax, 0, 0, 0},
        {kUlongMax, 32, kLongMax, 0x7FFFFFFF, 0, 32},
        {kUlongMax, kUlongMax, kLongMax, 0x7FFFFFFF, 0, 0x7FFFFFFF},
    };
    const auto image = std::make_unique<CURSOR_IMAGE>();
    for (const Axis& c : cases) {
        SCOPED_TRACE(testing::Message() << c.length << " pixels at " << c.position << " of " << c.limit);
        CURSOR_AREA area = {};
        image->Width = c.length;
        image->Height = 8;
        EXPECT_EQ(CURSOR_ClipToFrame(c.limit, 100, image.get(), c.position, 3, &area) != FALSE, c.drawn != 0);
        if (c.drawn != 0) {
            EXPECT_EQ(std::tie(area.FrameX, area.ImageX, area.Width), std::tie(c.frame, c.skipped, c.drawn));
            EXPECT_EQ(std::tuple(area.FrameY, area.ImageY, area.Height), std::tuple(3u, 0u, 8u));
        }
        image->Width = 8;
        image->Height = c.length;
        EXPECT_EQ(CURSOR_ClipToFrame(100, c.limit, image.get(), 3, c.position, &area) != FALSE, c.drawn != 0);
        if (c.drawn != 0) {
            EXPECT_EQ(std::tie(area.FrameY, area.ImageY, area.Height), std::tie(c.frame, c.skipped, c.drawn));
        }
    }
}

TEST(CursorBlending, AlphaIsTheExactQuotientTruncatedTowardZero) {
    for (ULONG alpha = 0; alpha < 256; alpha++) {
        for (int frame = 0; frame < 256; frame++) {
            // Three image values at once, in the three color bytes.
            for (int image = 0; image < 256; image += 3) {
                const ULONG framePixel = 0x5A000000u | static_cast<ULONG>(frame) * 0x010101u;
                const auto imageByte = [&](int i) { return static_cast<ULONG>(std::min(image + i, 255)); };
                const ULONG pixel = CURSOR_BlendAlpha(framePixel, alpha << 24 | imageByte(2) << 16 |
                                                                      imageByte(1) << 8 | imageByte(0));
                ASSERT_EQ(pixel >> 24, 0x5Au);
                for (int i = 0; i < 3; i++) {
                    const int moved = static_cast<int>(pixel >> (8 * i) & 0xFF) - frame;
                    const int wanted = (static_cast<int>(imageByte(i)) - frame) * static_cast<int>(alpha);
                    // Never more than the exact value, and less than one step below it.
                    ASSERT_LE(std::abs(moved) * 255, std::abs(wanted));
                    ASSERT_LT(std::abs(wanted) - std::abs(moved) * 255, 255);
                    ASSERT_GE(static_cast<long>(moved) * wanted, 0);
                }
            }
        }
    }
}

TEST(CursorBlending, MasksInvertAndReplace) {
    EXPECT_EQ(CURSOR_BlendMonochrome(0x80123456, TRUE, TRUE), 0x7FEDCBA9u);
    EXPECT_EQ(CURSOR_BlendMonochrome(0x80123456, TRUE, FALSE), 0x80123456u);
    EXPECT_EQ(CURSOR_BlendMonochrome(0x80123456, FALSE, TRUE), 0xFFFFFFFFu);
    EXPECT_EQ(CURSOR_BlendMonochrome(0x80123456, FALSE, FALSE), 0u);
    EXPECT_EQ(CURSOR_BlendMasked(0x80123456, 0x00ABCDEF), 0x80ABCDEFu);
    EXPECT_EQ(CURSOR_BlendMasked(0x80123456, 0xFFABCDEF), 0x80B9F9B9u);
    EXPECT_EQ(CURSOR_BlendMasked(0x80123456, 0x01000000), 0x80123456u);
}

namespace {

// A frame buffer whose pixels are in a block of exactly its size.
struct Frame {
    std::unique_ptr<FRAME_BUFFER_CONTEXT> record = std::make_unique<FRAME_BUFFER_CONTEXT>();
    Bytes pixels;

    Frame(ULONG width, ULONG height, std::size_t byteSize, unsigned seed = 7) : pixels(byteSize) {
        std::mt19937 random(seed);
        for (std::uint8_t& byte : pixels) {
            byte = static_cast<std::uint8_t>(random());
        }
        record->Width = width;
        record->Height = height;
        record->PixelBuffer = pixels.data();
        record->ByteSize = byteSize;
    }

    std::uint32_t pixel(ULONG x, ULONG y) const {
        std::uint32_t value;
        std::memcpy(&value, pixels.data() + (std::size_t{y} * record->Width + x) * 4, sizeof(value));
        return value;
    }
};

std::uint32_t blended(const CURSOR_IMAGE& image, ULONG column, ULONG row, std::uint32_t under) {
    const std::uint32_t over = imagePixel(image, column, row);
    switch (image.Type) {
    case POINTER_MONOCHROME:
        return CURSOR_BlendMonochrome(under, over >> 1 & 1, over & 1);
    case POINTER_COLOR_ALPHA:
        return CURSOR_BlendAlpha(under, over);
    case POINTER_COLOR_MASKED:
        return CURSOR_BlendMasked(under, over);
    default:
        return under;
    }
}

unsigned pixelsThatDiffer(const Frame& original, const Frame& drawn, const CURSOR_IMAGE& image, LONG x,
                          LONG y) {
    unsigned wrong = 0;
    for (ULONG row = 0; row < drawn.record->Height; row++) {
        for (ULONG column = 0; column < drawn.record->Width; column++) {
            const LONG imageColumn = static_cast<LONG>(column) - x;
            const LONG imageRow = static_cast<LONG>(row) - y;
            const bool covered = column + 1 < drawn.record->Width && row + 1 < drawn.record->Height &&
                                 imageColumn >= 0 && imageColumn < static_cast<LONG>(image.Width) &&
                                 imageRow >= 0 && imageRow < static_cast<LONG>(image.Height);
            const std::uint32_t under = original.pixel(column, row);
            wrong += drawn.pixel(column, row) != (covered ? blended(image, static_cast<ULONG>(imageColumn),
                                                                    static_cast<ULONG>(imageRow), under)
                                                          : under);
        }
    }
    return wrong;
}

void onMachine(const std::function<void()>& body) {
    kernel::Scheduler scheduler{kernel::SchedulerOptions{}};
    scheduler.run(body);
}

} // namespace

TEST(CursorDrawing, DrawsAtItsPositionAndRestoresThePixels) {
    onMachine([] {
        std::mt19937 random(11);
        const auto image = makeImage();
        for (int round = 0; round < 2000; round++) {
            const ULONG types[] = {POINTER_MONOCHROME, POINTER_COLOR_ALPHA, POINTER_COLOR_MASKED, 8};
            const ShapeSize size = {types[random() % 4], static_cast<ULONG>(random() % 40),
                                    static_cast<ULONG>(random() % 40), static_cast<ULONG>(random() % 3)};
            const Shape shape(size, static_cast<unsigned>(random()));
            ASSERT_TRUE(CURSOR_StoreShape(&image->image, &shape.record));
            const ULONG width = 1 + random() % 48;
            const ULONG height = 1 + random() % 48;
            const unsigned seed = static_cast<unsigned>(random());
            const Frame original(width, height, std::size_t{width} * height * 4, seed);
            Frame frame(width, height, std::size_t{width} * height * 4, seed);
            for (int step = 0; step < 2; step++) {
                const LONG x = static_cast<LONG>(random() % 110) - 55;
                const LONG y = static_cast<LONG>(random() % 110) - 55;
                CURSOR_Restore(frame.record.get());
                ASSERT_EQ(frame.pixels, original.pixels) << "pixels of the pointer remain";
                CURSOR_Compose(frame.record.get(), &image->image, x, y);
                ASSERT_EQ(pixelsThatDiffer(original, frame, image->image, x, y), 0u)
                    << "type " << size.type << ", " << size.width << " x " << size.height << " at (" << x
                    << ", " << y << ") in " << width << " x " << height;
            }
        }
    });
}

TEST(CursorDrawing, HostileFramesAndImagesAreLeftAlone) {
    const struct {
        const char* what;
        ULONG frameWidth, frameHeight;
        std::size_t frameBytes;
        ShapeSize shape;
        LONG x, y;
        bool drawn;
    } cases[] = {
        {"dimensions larger than the buffer", 64, 64, 4096, {2, 8, 8, 0}, 8, 10, false},
        {"the part of such a frame that exists", 64, 64, 4096, {2, 8, 8, 0}, 8, 8, true},
        {"the last pixel of it", 64, 64, 4096, {2, 8, 8, 0}, 56, 8, true},
        {"one pixel less", 64, 64, 4092 - 4, {2, 8, 8, 0}, 55, 8, false},
        {"an empty buffer", 64, 64, 0, {2, 8, 8, 0}, 0, 0, false},
        {"no dimensions", 0, 0, 4096, {2, 8, 8, 0}, 0, 0, false},
        {"the largest dimensions", kUlongMax, kUlongMax, 4096, {2, 8, 8, 0}, kLongMax, kLongMax, false},
        {"rows whose bytes wrap around", 0x40000000, 8, 4096, {2, 8, 8, 0}, 0, 1, false},
        {"a pointer larger than the save area", 1024, 1024, 4 << 20, {1, 512, 256, 0}, 0, 0, false},
        {"the part of it that is visible", 1024, 1024, 4 << 20, {1, 512, 256, 0}, 767, 0, true},
        {"exactly the save area", 1024, 1024, 4 << 20, {2, 256, 256, 0}, 4, 4, true},
    };
    onMachine([&] {
        const auto image = makeImage();
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            const Shape shape(c.shape);
            ASSERT_TRUE(CURSOR_StoreShape(&image->image, &shape.record));
            Frame frame(c.frameWidth, c.frameHeight, c.frameBytes);
            const Bytes before = frame.pixels;
            CURSOR_Compose(frame.record.get(), &image->image, c.x, c.y);
            EXPECT_EQ(frame.pixels != before, c.drawn);
            CURSOR_Restore(frame.record.get());
            EXPECT_EQ(frame.pixels, before);
        }
        // An image that is never stored: its rows reach beyond its bits.
        Frame frame(512, 512, 1 << 20);
        const Bytes before = frame.pixels;
        image->image.Type = POINTER_COLOR_ALPHA;
        image->image.Width = image->image.Height = 256;
        image->image.Pitch = 1025;
        CURSOR_Compose(frame.record.get(), &image->image, 0, 0);
        EXPECT_EQ(frame.pixels, before);
    });
}

TEST(CursorDrawing, WithoutMemoryLeavesTheFrameUnchanged) {
    onMachine([] {
        const Shape shape({POINTER_COLOR_ALPHA, 8, 8, 0});
        const auto image = makeImage();
        ASSERT_TRUE(CURSOR_StoreShape(&image->image, &shape.record));
        Frame frame(64, 64, 64 * 64 * 4);
        const Bytes before = frame.pixels;
        kernel::armFault(1, kernel::FaultMode::Once);
        CURSOR_Compose(frame.record.get(), &image->image, 8, 8);
        ASSERT_TRUE(kernel::faultFired());
        kernel::disarmFault();
        EXPECT_EQ(frame.pixels, before);
        EXPECT_FALSE(frame.record->SavedValid);
        CURSOR_Compose(frame.record.get(), &image->image, 8, 8);
        EXPECT_NE(frame.pixels, before);
    });
}
