// Pointer shapes of the three types that a client can give to the driver.
#pragma once

#include "device/client_abi.h"
#include "support/surface.h"

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace desktop {

constexpr unsigned kMaxPointerSide = 256;

// Monochrome: an AND mask of height x pitch bytes and an XOR mask of the same size, the leftmost pixel in a
// byte's highest bit. Color: 4-byte pixels, byte 3 being alpha or the mask.
struct PointerImage {
    POINTER_TYPE type = POINTER_MONOCHROME;
    unsigned width = 0;
    unsigned height = 0;
    unsigned pitch = 0; // bytes per row
    std::vector<std::uint8_t> bits;
};

// Built-in pointers.
struct BuiltinPointer {
    std::string_view name;
    std::string_view description;
};
std::span<const BuiltinPointer> builtinPointers();
bool isBuiltinPointer(std::string_view name);
PointerImage builtinPointer(std::string_view name);

// A color pointer with the picture's alpha. Throws `InputError` when a side exceeds `kMaxPointerSide`.
PointerImage pointerFromPicture(const support::Surface& picture, const std::string& name);

} // namespace desktop
