// Whole files, by name; "-" is standard input or output. All failures are `InputError`s that name the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace support {

// What messages call the file: its name in quotes, or "standard input".
std::string inputName(const std::string& file);

// Fails when the file is longer than `limit` bytes.
std::vector<std::uint8_t> readFile(const std::string& file, std::size_t limit);

// The file appears whole or not at all: it is written beside its place and then renamed.
void writeFile(const std::string& file, std::span<const std::uint8_t> contents);

// Fails as `writeFile` would for want of a writable directory, so that a long run need not end in it.
void requireWritable(const std::string& file);

} // namespace support
