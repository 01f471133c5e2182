// Buffers, contents and a device context for the tests of the pixel code.
#pragma once

#include "driver/device_context.h"

#include <cstdint>
#include <cstring>
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

inline std::unique_ptr<DEVICE_CONTEXT> makeContext() {
    return std::make_unique<DEVICE_CONTEXT>();
}

} // namespace test
