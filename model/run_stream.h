// The adapter's run expander: turns a compressed frame back into pixels.
//
// A stream is a sequence of units of 1, 2 or 3 bytes, little-endian. A unit with its top bit set is a literal
// pixel, one with it clear repeats the last pixel that often. The stream comes from the wire: any bytes at
// all must end in a picture or in a cause, without a read or write out of bounds.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace model {

// Expands `stream` into exactly `pixels.size() / unit` pixels of `unit` bytes each (1, 2 or 3). A literal
// loses the bit that the flag took: the lowest of an 8-bit pixel (the others move up by one), the top one of
// a 16-bit pixel, the lowest red one of a 24-bit pixel. After the last pixel up to three bytes may fill the
// stream to a multiple of four. Returns an empty string, or what is wrong with the stream.
std::string expandRuns(std::span<const std::uint8_t> stream, unsigned unit, std::span<std::uint8_t> pixels);

} // namespace model
