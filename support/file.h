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

// Writes a temporary file in the same folder and renames it, so that the file is never incomplete.
void writeFile(const std::string& file, std::span<const std::uint8_t> contents);

// Fails when the file's directory is not writable. Called before a long run whose result `writeFile` writes.
void requireWritable(const std::string& file);

} // namespace support
