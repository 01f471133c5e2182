// Buffers and contents for the tests of the pixel code.
#pragma once

#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <random>
#include <span>
#include <vector>

namespace test {

using Bytes = std::vector<unsigned char>;

// Memory at a 64-byte boundary, filled with one value.
class AlignedBuffer {
  public:
    AlignedBuffer(size_t size, unsigned char fill = 0)
        : memory_(static_cast<unsigned char*>(::operator new (size + 1, std::align_val_t{64}))), size_(size) {
        std::memset(memory_.get(), fill, size);
    }
    unsigned char* data() { return memory_.get(); }
    size_t size() const { return size_; }
    Bytes bytes(size_t offset, size_t length) const {
        return {memory_.get() + offset, memory_.get() + offset + length};
    }

  private:
    struct Free {
        void operator()(unsigned char* memory) const { ::operator delete (memory, std::align_val_t{64}); }
    };
    std::unique_ptr<unsigned char, Free> memory_;
    size_t size_;
};

inline Bytes noise(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    Bytes bytes(size);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(generator());
    }
    return bytes;
}

inline Bytes words(std::initializer_list<unsigned> values) {
    Bytes bytes;
    for (const unsigned value : values) {
        bytes.push_back(static_cast<unsigned char>(value));
        bytes.push_back(static_cast<unsigned char>(value >> 8));
    }
    return bytes;
}

// `count` pixels of `bytesPerPixel` bytes, each the low bytes of `value`.
inline Bytes run(size_t count, unsigned value, size_t bytesPerPixel) {
    Bytes bytes;
    for (size_t at = 0; at < count * bytesPerPixel; at++) {
        bytes.push_back(static_cast<unsigned char>(value >> (8 * (at % bytesPerPixel))));
    }
    return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace test
