// Memory objects over pool blocks, over lookaside blocks and over buffers of the driver.
#pragma once

#include "platform/framework/object.h"

#include <optional>

namespace framework {

class Lookaside;

class Memory final : public Object {
  public:
    // Over a block that the object frees; a block of a lookaside list keeps the list alive.
    Memory(void* block, std::size_t size, ULONG tag, Ref<Lookaside> lookaside);
    // Over a buffer of the driver.
    Memory(void* buffer, std::size_t size);
    ~Memory() override;

    WDFMEMORY wdf() const { return static_cast<WDFMEMORY>(handle()); }
    void* buffer() const { return buffer_; }
    std::size_t size() const { return size_; }

    // A pool block under a new memory object; the object without its place in the tree.
    static NTSTATUS allocate(std::string_view call, POOL_TYPE type, ULONG tag, std::size_t size,
                             Ref<Lookaside> lookaside, Memory*& memory);

  private:
    void* const buffer_;
    const std::size_t size_;
    const std::optional<ULONG> tag_; // of the block to free
    Ref<Lookaside> lookaside_;
};

class Lookaside final : public Object {
  public:
    Lookaside(std::size_t blockSize, POOL_TYPE poolType, ULONG tag,
              std::optional<WDF_OBJECT_ATTRIBUTES> memoryAttributes)
        : Object(Kind::Lookaside), blockSize(blockSize), poolType(poolType), tag(tag),
          memoryAttributes(memoryAttributes) {}

    const std::size_t blockSize;
    const POOL_TYPE poolType;
    const ULONG tag;
    const std::optional<WDF_OBJECT_ATTRIBUTES> memoryAttributes;
};

} // namespace framework
