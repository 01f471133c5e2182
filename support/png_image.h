// Pictures as PNG files. Throws `InputError` for a damaged or too large file.
#pragma once

#include "support/surface.h"

#include <string>

namespace support {

// With straight alpha in byte 3 of each pixel; 255 everywhere when the file has none.
Surface readPngWithAlpha(const std::string& file);

// Transparent pixels are blended over black.
Surface readPng(const std::string& file);

// 8 bits per channel, no alpha. "-" writes to standard output.
void writePng(const std::string& file, const Surface& picture);

} // namespace support
