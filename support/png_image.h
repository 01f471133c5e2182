// Pictures as PNG files. Files are hostile until read: a damaged or oversized one is an `InputError`.
#pragma once

#include "support/surface.h"

#include <cstdint>
#include <span>
#include <string>

namespace support {

// With straight alpha in byte 3 of each pixel; 255 everywhere when the file has none.
Surface readPngWithAlpha(const std::string& file);
Surface decodePng(std::span<const std::uint8_t> contents, const std::string& name);

// Over black where the file is transparent.
Surface readPng(const std::string& file);

// 8 bits per channel, no alpha. "-" writes to standard output.
void writePng(const std::string& file, const Surface& picture);

} // namespace support
