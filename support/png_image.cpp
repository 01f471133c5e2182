#include "support/png_image.h"

#include "support/file.h"
#include "support/input_error.h"

#include <png.h>

#include <cstring>

namespace support {

namespace {

constexpr std::size_t kMaxFileBytes = 512u << 20;

// The state of libpng's simplified interface, freed on every path.
struct PngRecord : png_image {
    PngRecord() : png_image{} { version = PNG_IMAGE_VERSION; }
    ~PngRecord() { png_image_free(this); }
    PngRecord(const PngRecord&) = delete;
    PngRecord& operator=(const PngRecord&) = delete;
};

[[noreturn]] void refuse(const std::string& name, const std::string& why) {
    throw InputError(name + " is not a usable PNG picture: " + why);
}

Surface decodePng(std::span<const std::uint8_t> contents, const std::string& name) {
    PngRecord png;
    if (!png_image_begin_read_from_memory(&png, contents.data(), contents.size())) {
        refuse(name, png.message);
    }
    if (png.width > kMaxSurfaceSide || png.height > kMaxSurfaceSide) {
        const std::string most = std::to_string(kMaxSurfaceSide);
        refuse(name, std::to_string(png.width) + " x " + std::to_string(png.height) + " pixels, at most " +
                         most + " x " + most + " are allowed");
    }
    png.format = PNG_FORMAT_BGRA;
    Surface picture(png.width, png.height);
    if (!png_image_finish_read(&png, nullptr, picture.pixels.data(), 0, nullptr) ||
        (png.warning_or_error & PNG_IMAGE_ERROR) != 0) {
        refuse(name, png.message);
    }
    return picture;
}

} // namespace

Surface readPngWithAlpha(const std::string& file) {
    return decodePng(readFile(file, kMaxFileBytes), inputName(file));
}

Surface readPng(const std::string& file) {
    Surface picture = readPngWithAlpha(file);
    for (Pixel& pixel : picture.pixels) {
        const unsigned alpha = pixel >> 24;
        if (alpha != 255) {
            const auto over = [alpha](unsigned channel) { return (channel & 0xFF) * alpha / 255; };
            pixel = makePixel(over(pixel >> 16), over(pixel >> 8), over(pixel));
        }
    }
    return picture;
}

void writePng(const std::string& file, const Surface& picture) {
    std::vector<std::uint8_t> rgb;
    rgb.reserve(picture.pixels.size() * 3);
    for (const Pixel pixel : picture.pixels) {
        rgb.insert(rgb.end(), {static_cast<std::uint8_t>(pixel >> 16), static_cast<std::uint8_t>(pixel >> 8),
                               static_cast<std::uint8_t>(pixel)});
    }
    PngRecord png;
    png.width = picture.width;
    png.height = picture.height;
    png.format = PNG_FORMAT_RGB;
    png.flags = PNG_IMAGE_FLAG_FAST;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
    std::vector<std::uint8_t> contents(size);
    if (!png_image_write_to_memory(&png, contents.data(), &size, 0, rgb.data(), 0, nullptr)) {
        throw InputError("cannot encode \"" + file + "\" as PNG: " + png.message);
    }
    contents.resize(size);
    writeFile(file, contents);
}

} // namespace support
