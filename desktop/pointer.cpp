#include "desktop/pointer.h"

#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace desktop {

namespace {

using support::Pixel;
using support::Surface;

// Monochrome pointers are drawn as text: '#' black (AND 0, XOR 0), 'o' white (AND 0, XOR 1), 'x' inverted
// (AND 1, XOR 1), anything else transparent (AND 1, XOR 0).
PointerImage monochrome(std::span<const std::string_view> rows) {
    PointerImage image;
    image.type = POINTER_MONOCHROME;
    image.width = static_cast<unsigned>(rows.front().size());
    image.height = static_cast<unsigned>(rows.size());
    image.pitch = (image.width + 7) / 8;
    const std::size_t maskBytes = std::size_t{image.pitch} * image.height;
    image.bits.assign(2 * maskBytes, 0);
    for (unsigned y = 0; y < image.height; y++) {
        for (unsigned x = 0; x < image.width; x++) {
            const char ink = rows[y][x];
            const std::size_t byte = std::size_t{y} * image.pitch + x / 8;
            const std::uint8_t bit = static_cast<std::uint8_t>(0x80 >> (x % 8));
            if (ink != '#' && ink != 'o') {
                image.bits[byte] |= bit;
            }
            if (ink == 'o' || ink == 'x') {
                image.bits[maskBytes + byte] |= bit;
            }
        }
    }
    return image;
}

template <typename Color>
PointerImage colored(POINTER_TYPE type, unsigned width, unsigned height, Color color) {
    Surface picture(width, height);
    for (unsigned y = 0; y < height; y++) {
        for (unsigned x = 0; x < width; x++) {
            picture.at(x, y) = color(x, y);
        }
    }
    PointerImage image;
    image.type = type;
    image.width = width;
    image.height = height;
    image.pitch = width * 4;
    image.bits.resize(picture.pixels.size() * sizeof(Pixel));
    std::memcpy(image.bits.data(), picture.pixels.data(), image.bits.size());
    return image;
}

PointerImage makeArrow() {
    constexpr std::array<std::string_view, 19> rows = {
        "#           ", "##          ", "#o#         ", "#oo#        ", "#ooo#       ",
        "#oooo#      ", "#ooooo#     ", "#oooooo#    ", "#ooooooo#   ", "#oooooooo#  ",
        "#ooooooooo# ", "#oooooo#####", "#ooo#oo#    ", "#oo# #oo#   ", "#o#  #oo#   ",
        "##    #oo#  ", "      #oo#  ", "       ##   ", "            ",
    };
    return monochrome(rows);
}

PointerImage makeBeam() {
    constexpr std::array<std::string_view, 17> rows = {
        "xxx xxx", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ",
        "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "   x   ", "xxx xxx",
    };
    return monochrome(rows);
}

PointerImage makeHalo() {
    constexpr unsigned kWidth = 40;
    constexpr unsigned kHeight = 32;
    return colored(POINTER_COLOR_ALPHA, kWidth, kHeight, [](unsigned x, unsigned y) {
        const double distance = std::hypot((x + 0.5) / kWidth - 0.5, (y + 0.5) / kHeight - 0.5) * 2;
        const unsigned alpha = distance >= 1 ? 0 : static_cast<unsigned>((1 - distance) * 255);
        // Different in x and y, so that a rotated or mirrored halo is a different picture.
        return alpha << 24 | (255 - x * 4) << 16 | (y * 8) << 8 | 64;
    });
}

PointerImage makeCross() {
    constexpr unsigned kWidth = 33;
    constexpr unsigned kHeight = 25;
    return colored(POINTER_COLOR_MASKED, kWidth, kHeight, [](unsigned x, unsigned y) -> Pixel {
        const bool onCross = x == kWidth / 2 || y == kHeight / 2;
        const bool plate = x < 6 && y < 4;                             // shows the rotation of the pointer
        return plate ? 0x00C02040 : onCross ? 0xFFFFFFFF : 0xFF000000; // mask 0 replaces, else XOR
    });
}

struct DrawnPointer {
    BuiltinPointer pointer;
    PointerImage (*make)();
};

constexpr auto kDrawn = std::to_array<DrawnPointer>({
    {{"arrow", "monochrome, white with a black outline"}, makeArrow},
    {{"beam", "monochrome, inverts the pixels under it"}, makeBeam},
    {{"halo", "color with alpha"}, makeHalo},
    {{"cross", "masked color, an inverting cross with an opaque plate"}, makeCross},
});

constexpr auto kPointers = [] {
    std::array<BuiltinPointer, kDrawn.size()> list{};
    std::ranges::transform(kDrawn, list.begin(), &DrawnPointer::pointer);
    return list;
}();

} // namespace

std::span<const BuiltinPointer> builtinPointers() {
    return kPointers;
}

bool isBuiltinPointer(std::string_view name) {
    return std::ranges::find(kPointers, name, &BuiltinPointer::name) != kPointers.end();
}

PointerImage builtinPointer(std::string_view name) {
    return std::ranges::find(kDrawn, name, [](const DrawnPointer& entry) { return entry.pointer.name; })
        ->make();
}

PointerImage pointerFromPicture(const Surface& picture, const std::string& name) {
    if (picture.width > kMaxPointerSide || picture.height > kMaxPointerSide) {
        const std::string most = std::to_string(kMaxPointerSide);
        throw support::InputError(name + " has " + std::to_string(picture.width) + " x " +
                                  std::to_string(picture.height) + " pixels; a pointer has at most " + most +
                                  " x " + most);
    }
    return colored(POINTER_COLOR_ALPHA, picture.width, picture.height,
                   [&](unsigned x, unsigned y) { return picture.at(x, y); });
}

} // namespace desktop
