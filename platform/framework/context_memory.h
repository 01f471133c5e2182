// The memory of an object's context, with guard bytes around it as a pool block has them. It is zero at first
// and lies at a multiple of 16 that is none of 32: the framework promises no more than that.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>

namespace framework {

class ContextMemory {
  public:
    ContextMemory() = default;
    explicit ContextMemory(std::size_t size); // empty when the process has no memory left
    ~ContextMemory();
    ContextMemory(ContextMemory&& other) noexcept { swap(other); }
    ContextMemory& operator=(ContextMemory other) noexcept {
        swap(other);
        return *this;
    }

    explicit operator bool() const { return base_ != nullptr; }
    unsigned char* begin() const;
    unsigned char* end() const { return begin() + size_; }
    std::size_t size() const { return size_; }

    // Reports PoolOverrun when the bytes before or behind the context were overwritten.
    void requireIntact(std::string_view call, std::string_view owner) const;

    // The object is gone, its memory not yet: marks the memory as freed, so that `isUntouched` shows whether
    // it was written to since.
    void retire();
    bool isUntouched() const;

  private:
    void swap(ContextMemory& other) noexcept {
        std::swap(base_, other.base_);
        std::swap(baseSize_, other.baseSize_);
        std::swap(size_, other.size_);
    }
    std::size_t rearSize() const;

    unsigned char* base_ = nullptr; // what the C library gave
    std::size_t baseSize_ = 0;
    std::size_t size_ = 0;
};

} // namespace framework
