// Pool blocks with tags, guard bytes and fill patterns; MDLs; and the buffers that transfers are using.
//
// A block starts at a 16-byte boundary, from one page up at a page boundary. Fresh memory holds kFreshFill,
// so that memory that was never written is recognized on the wire. Freed memory is filled again and not
// reused for some time, so that a write after the free is found. Callable at up to DISPATCH_LEVEL; takes the
// kernel lock itself.
#pragma once

#include <ntddk.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kernel {

constexpr std::uint8_t kFreshFill = 0xCD;
constexpr std::uint8_t kFreedFill = 0xDD;

// Null when a fault is armed for this point or `size` is absurd. `call` names the kernel or framework
// function for faults and reports.
void* allocatePool(POOL_TYPE type, std::size_t size, ULONG tag, std::string_view call);

// Checks tag and guard bytes, and that no transfer uses the block.
void freePool(void* block, ULONG tag, std::string_view call);

struct PoolBlock {
    void* address = nullptr;
    std::size_t size = 0;
    ULONG tag = 0;
    POOL_TYPE type = NonPagedPool;
};

// The live block that `address` lies in.
std::optional<PoolBlock> findPoolBlock(const void* address);

// True when `address` lies in a block that was freed and whose memory has not been reused.
bool liesInFreedBlock(const void* address);

// "OSTV": the tag's bytes in memory order, as the kernel's tools show it.
std::string tagText(ULONG tag);

struct PoolUse {
    ULONG tag = 0;
    std::size_t blocks = 0;
    std::size_t bytes = 0;
};

std::uint64_t poolAllocations(); // successful allocations since the machine started
std::vector<PoolUse> poolInUse();

// Reports PoolLeak when a block or an MDL is still allocated.
void requirePoolEmpty(std::string_view call);

// A transfer that reads or writes [address, address + size) until the mark is taken off: freeing a block or
// an MDL that overlaps it is reported as BufferLifetime. An MDL in use is marked by its own address.
using BufferUse = std::uint64_t;
BufferUse beginBufferUse(const void* address, std::size_t size, std::string what);
void endBufferUse(BufferUse use);

// Fails with BufferLifetime when [address, address + size) overlaps a buffer in use. For memory that is not
// pool: URBs and contexts inside framework objects.
void requireUnused(const void* address, std::size_t size, std::string_view call);

// True for an MDL that IoAllocateMdl returned and IoFreeMdl has not taken back.
bool isLiveMdl(const MDL* mdl);

// False when the pool block that the MDL was built for has been freed since, also when another block has
// taken its place. Memory that is no pool is taken for alive.
bool isMdlMemoryLive(const MDL* mdl);

} // namespace kernel
