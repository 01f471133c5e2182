// The blocks' records are kept apart from the memory, so that a driver that writes past a block damages guard
// bytes and nothing that the report needs. Large blocks go back to a cache and come out of it again: a
// device is plugged and unplugged thousands of times in one process, with tens of megabytes of buffers each
// time.

#include "platform/kernel/pool.h"
#include "platform/kernel/lock_tracking.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/kernel_lock.h"
#include "platform/kernel/ordering.h"
#include "platform/kernel/platform_call.h"
#include "platform/kernel/sanitizer.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fmt/format.h>
#include <map>

namespace kernel {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kGuard = 16;
constexpr std::uint8_t kGuardByte = 0xFB;
constexpr std::size_t kLargest = std::size_t{1} << 30;
constexpr std::size_t kCachedFrom = 64 * 1024;         // freed blocks of this size on are reused as they are
constexpr std::size_t kCacheLimit = 256 * 1024 * 1024; // bytes of them kept
constexpr std::size_t kQuarantineLimit = 4 * 1024 * 1024;
constexpr std::size_t kCheckedEnds = kPage; // of a large freed block, this much at each end is watched

struct Block {
    std::uint8_t* base = nullptr; // what the C library gave
    std::size_t baseSize = 0;
    std::uint8_t* data = nullptr;
    std::size_t size = 0;
    ULONG tag = 0;
    POOL_TYPE type = NonPagedPool;
    std::uint64_t number = 0; // of the allocation: tells this block from a later one at the same address

    std::uint8_t* frontGuard() const { return data - kGuard; }
    std::uint8_t* end() const { return data + size; }
    std::size_t rearGuardSize() const { return static_cast<std::size_t>(base + baseSize - end()); }
};

struct MdlRecord {
    std::size_t size = 0;
    std::uint64_t block = 0; // the number of the block it was built for; 0 for memory that is no pool
};

struct Use {
    BufferUse id;
    const std::uint8_t* begin;
    const std::uint8_t* end;
    std::string what;
};

// Memory of large blocks that earlier machines gave back. Mapping it anew would take as long as the rest of a
// short run. Nothing is carried over: a block that is made of it is filled as any other.
class SpareMemory {
  public:
    std::uint8_t* take(std::size_t size) {
        auto found = chunks_.find(size);
        if (found == chunks_.end()) {
            return nullptr;
        }
        std::uint8_t* chunk = found->second;
        chunks_.erase(found);
        bytes_ -= size;
        return chunk;
    }

    bool give(std::uint8_t* chunk, std::size_t size) {
        if (size < kCachedFrom || bytes_ + size > kCacheLimit) {
            return false;
        }
        chunks_.emplace(size, chunk);
        bytes_ += size;
        return true;
    }

  private:
    std::multimap<std::size_t, std::uint8_t*> chunks_; // by size
    std::size_t bytes_ = 0;
};
SpareMemory& spareMemory = *new SpareMemory; // guarded by the kernel lock

void release(const Block& block) {
    sanitizer::unpoison(block.base, block.baseSize);
    std::free(block.base);
}

void giveBack(const Block& block) {
    sanitizer::unpoison(block.base, block.baseSize);
    if (!spareMemory.give(block.base, block.baseSize)) {
        std::free(block.base);
    }
}

// All guarded by the kernel lock.
struct Pool {
    Pool() = default;
    ~Pool(); // gives everything back without reports
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    std::map<const std::uint8_t*, Block> live; // by `data`
    std::deque<Block> quarantine;
    std::size_t quarantineBytes = 0;
    std::multimap<std::size_t, Block> cache; // by `baseSize`
    std::size_t cacheBytes = 0;
    std::map<const std::uint8_t*, std::size_t> freed; // sizes of the blocks in both, by `data`
    std::map<const MDL*, MdlRecord> mdls;
    std::vector<Use> uses;
    BufferUse lastUse = 0;
    std::uint64_t allocations = 0;
};

Pool::~Pool() {
    for (const auto& [address, block] : live) {
        giveBack(block);
    }
    for (const Block& block : quarantine) {
        release(block);
    }
    for (const auto& [size, block] : cache) {
        giveBack(block);
    }
    for (const auto& [mdl, record] : mdls) {
        std::free(const_cast<MDL*>(mdl));
    }
}

base::MachinePart<Pool> pool;

std::string describe(const Block& block) {
    return fmt::format("block {} of {} bytes, tag {}", fmt::ptr(block.data), block.size, tagText(block.tag));
}

bool allEqual(const std::uint8_t* bytes, std::size_t count, std::uint8_t value) {
    return count == 0 || (bytes[0] == value && std::memcmp(bytes, bytes + 1, count - 1) == 0);
}

// Applies `visit(begin, size)` to the parts of a freed block that are watched.
template <typename Visit>
void forWatched(const Block& block, Visit visit) {
    if (block.size <= 2 * kCheckedEnds || block.baseSize < kCachedFrom) {
        visit(block.data, block.size);
    } else {
        visit(block.data, kCheckedEnds);
        visit(block.end() - kCheckedEnds, kCheckedEnds);
    }
}

void requireUntouched(const Block& block, std::string_view call) {
    forWatched(block, [&](const std::uint8_t* begin, std::size_t size) {
        sanitizer::unpoison(begin, size);
        if (!allEqual(begin, size, kFreedFill)) {
            verifier::fail(verifier::Rule::PoolOverrun, call, describe(block),
                           "the block was written to after it was freed");
        }
        sanitizer::poison(begin, size);
    });
}

// Memory for `size` bytes with guards around them; null when the process has none left.
Block obtain(std::size_t size, std::string_view call) {
    const bool paged = size >= kPage;
    const std::size_t front = paged ? kPage : kGuard;
    const std::size_t alignment = paged ? kPage : kGuard;
    Block block;
    block.baseSize = (front + size + kGuard + alignment - 1) / alignment * alignment;
    auto cached = pool->cache.find(block.baseSize);
    if (cached != pool->cache.end()) {
        block = cached->second;
        pool->cache.erase(cached);
        pool->freed.erase(block.data);
        pool->cacheBytes -= block.baseSize;
        requireUntouched(block, call);
        sanitizer::unpoison(block.base, block.baseSize);
    } else {
        block.base = spareMemory.take(block.baseSize);
        if (block.base == nullptr) {
            block.base = static_cast<std::uint8_t*>(std::aligned_alloc(alignment, block.baseSize));
        }
    }
    if (block.base != nullptr) {
        block.data = block.base + front;
        block.size = size;
    }
    return block;
}

void fillFreed(const Block& block) {
    forWatched(block, [](std::uint8_t* begin, std::size_t size) { std::memset(begin, kFreedFill, size); });
    sanitizer::poison(block.base, block.baseSize);
}

void putAway(const Block& block, std::string_view call) {
    fillFreed(block);
    if (block.baseSize >= kCachedFrom) {
        if (pool->cacheBytes + block.baseSize > kCacheLimit) {
            release(block);
            return;
        }
        pool->cache.emplace(block.baseSize, block);
        pool->freed[block.data] = block.size;
        pool->cacheBytes += block.baseSize;
        return;
    }
    pool->quarantine.push_back(block);
    pool->freed[block.data] = block.size;
    pool->quarantineBytes += block.baseSize;
    while (pool->quarantineBytes > kQuarantineLimit) {
        const Block oldest = pool->quarantine.front();
        pool->quarantine.pop_front();
        pool->freed.erase(oldest.data);
        pool->quarantineBytes -= oldest.baseSize;
        requireUntouched(oldest, call);
        release(oldest);
    }
}

void requireGuardsIntact(const Block& block, std::string_view call) {
    sanitizer::unpoison(block.base, block.baseSize);
    if (!allEqual(block.frontGuard(), kGuard, kGuardByte)) {
        verifier::fail(verifier::Rule::PoolOverrun, call, describe(block),
                       "the bytes before the block were overwritten");
    }
    if (!allEqual(block.end(), block.rearGuardSize(), kGuardByte)) {
        verifier::fail(verifier::Rule::PoolOverrun, call, describe(block),
                       "the bytes behind the block were overwritten");
    }
}

bool liesInFreed(const void* address) {
    const auto* byte = static_cast<const std::uint8_t*>(address);
    auto next = pool->freed.upper_bound(byte);
    return next != pool->freed.begin() && byte < std::prev(next)->first + std::prev(next)->second;
}

const Block* findLive(const void* address) {
    const auto* byte = static_cast<const std::uint8_t*>(address);
    auto next = pool->live.upper_bound(byte);
    if (next == pool->live.begin()) {
        return nullptr;
    }
    const Block& block = std::prev(next)->second;
    return byte < block.end() ? &block : nullptr;
}

void requireNotInUse(const void* address, std::size_t size, std::string_view call) {
    const auto* begin = static_cast<const std::uint8_t*>(address);
    for (const Use& use : pool->uses) {
        if (begin < use.end && use.begin < begin + size) {
            verifier::fail(verifier::Rule::BufferLifetime, call, fmt::format("{}", address),
                           fmt::format("still in use by {}", use.what));
        }
    }
}

} // namespace

std::string tagText(ULONG tag) {
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        const auto character = static_cast<char>((tag >> shift) & 0xFF);
        text += character >= 0x20 && character < 0x7F ? character : '.';
    }
    return text;
}

void* allocatePool(POOL_TYPE type, std::size_t size, ULONG tag, std::string_view call) {
    verifier::requireIrql(call, type == PagedPool ? kApcLevel : kDispatchLevel);
    if (tag == 0 || tagText(tag) == "    ") {
        verifier::fail(verifier::Rule::PoolTag, call, fmt::format("{:#x}", tag), "an allocation needs a tag");
    }
    if (size == 0) {
        verifier::fail(verifier::Rule::Argument, call, "0 bytes", "an empty allocation");
    }
    if (faultPoint(FaultKind::Allocation, call) || size > kLargest) {
        return nullptr;
    }
    KernelLockIfFree guard;
    Block block = obtain(size, call);
    if (block.base == nullptr) {
        return nullptr;
    }
    block.tag = tag;
    block.type = type;
    std::memset(block.frontGuard(), kGuardByte, kGuard);
    std::memset(block.data, kFreshFill, size);
    std::memset(block.end(), kGuardByte, block.rearGuardSize());
    sanitizer::poison(block.base, static_cast<std::size_t>(block.data - block.base));
    sanitizer::poison(block.end(), block.rearGuardSize());
    announceAcquire(block.data);
    block.number = ++pool->allocations;
    pool->live[block.data] = block;
    return block.data;
}

void freePool(void* address, ULONG tag, std::string_view call) {
    verifier::requireIrql(call, kDispatchLevel);
    KernelLockIfFree guard;
    auto found = pool->live.find(static_cast<std::uint8_t*>(address));
    if (found == pool->live.end()) {
        verifier::fail(verifier::Rule::PoolFreedTwice, call, fmt::format("{}", address),
                       pool->freed.contains(static_cast<std::uint8_t*>(address))
                           ? "the block was freed before"
                           : "no block of pool begins here");
    }
    const Block block = found->second;
    if (block.type == PagedPool) {
        verifier::requireIrql(call, kApcLevel);
    }
    if (block.tag != tag && tag != 0) {
        verifier::fail(verifier::Rule::PoolTag, call, describe(block),
                       fmt::format("freed with tag {}", tagText(tag)));
    }
    requireNotInUse(block.data, block.size, call);
    requireGuardsIntact(block, call);
    locksDestroyed(block.data, block.end(), call);
    announceRelease(block.data);
    pool->live.erase(found);
    putAway(block, call);
}

std::optional<PoolBlock> findPoolBlock(const void* address) {
    KernelLockIfFree guard;
    const Block* block = findLive(address);
    if (block == nullptr) {
        return std::nullopt;
    }
    return PoolBlock{block->data, block->size, block->tag, block->type};
}

bool liesInFreedBlock(const void* address) {
    KernelLockIfFree guard;
    return liesInFreed(address);
}

std::uint64_t poolAllocations() {
    KernelLockIfFree guard;
    return pool->allocations;
}

std::vector<PoolUse> poolInUse() {
    KernelLockIfFree guard;
    std::map<ULONG, PoolUse> byTag;
    for (const auto& [address, block] : pool->live) {
        PoolUse& use = byTag[block.tag];
        use.tag = block.tag;
        use.blocks++;
        use.bytes += block.size;
    }
    std::vector<PoolUse> result;
    for (const auto& [tag, use] : byTag) {
        result.push_back(use);
    }
    return result;
}

void requirePoolEmpty(std::string_view call) {
    KernelLockIfFree guard;
    for (const Block& block : pool->quarantine) {
        requireUntouched(block, call);
    }
    for (const auto& [size, block] : pool->cache) {
        requireUntouched(block, call);
    }
    if (!pool->live.empty()) {
        const Block& first = pool->live.begin()->second;
        verifier::fail(verifier::Rule::PoolLeak, call, describe(first),
                       fmt::format("{} blocks were never freed", pool->live.size()));
    }
    if (!pool->mdls.empty()) {
        verifier::fail(verifier::Rule::PoolLeak, call, fmt::format("{}", fmt::ptr(pool->mdls.begin()->first)),
                       fmt::format("{} MDLs were never freed", pool->mdls.size()));
    }
}

BufferUse beginBufferUse(const void* address, std::size_t size, std::string what) {
    KernelLockIfFree guard;
    const auto* begin = static_cast<const std::uint8_t*>(address);
    pool->uses.push_back({++pool->lastUse, begin, begin + size, std::move(what)});
    return pool->lastUse;
}

void endBufferUse(BufferUse use) {
    KernelLockIfFree guard;
    std::erase_if(pool->uses, [use](const Use& entry) { return entry.id == use; });
}

void requireUnused(const void* address, std::size_t size, std::string_view call) {
    KernelLockIfFree guard;
    requireNotInUse(address, size, call);
}

bool isLiveMdl(const MDL* mdl) {
    KernelLockIfFree guard;
    return pool->mdls.contains(mdl);
}

bool isMdlMemoryLive(const MDL* mdl) {
    KernelLockIfFree guard;
    auto found = pool->mdls.find(mdl);
    if (found == pool->mdls.end()) {
        return false;
    }
    const std::uint64_t number = found->second.block;
    const Block* block = findLive(mdl->MappedSystemVa);
    return number == 0 || (block != nullptr && block->number == number);
}

} // namespace kernel

using namespace kernel;

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    PlatformCall call;
    return allocatePool(PoolType, NumberOfBytes, Tag, "ExAllocatePoolWithTag");
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag) {
    PlatformCall call;
    freePool(P, Tag, "ExFreePoolWithTag");
}

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN, PIRP Irp) {
    PlatformCall call;
    verifier::requireIrql("IoAllocateMdl", kDispatchLevel);
    if (Length == 0 || SecondaryBuffer || Irp != nullptr) {
        verifier::fail(verifier::Rule::Argument, "IoAllocateMdl", fmt::format("{} bytes", Length),
                       "this platform offers MDLs of at least one byte that belong to no request");
    }
    if (faultPoint(FaultKind::Allocation, "IoAllocateMdl")) {
        return nullptr;
    }
    const auto offset = reinterpret_cast<std::uintptr_t>(VirtualAddress) % kPage;
    const std::size_t pages = (offset + Length + kPage - 1) / kPage;
    const std::size_t size = sizeof(MDL) + pages * sizeof(std::uintptr_t); // the page numbers follow
    auto* mdl = static_cast<MDL*>(std::calloc(1, size));
    if (mdl == nullptr) {
        return nullptr;
    }
    mdl->Size = static_cast<CSHORT>(std::min<std::size_t>(size, INT16_MAX));
    mdl->StartVa = static_cast<char*>(VirtualAddress) - offset;
    mdl->ByteOffset = static_cast<ULONG>(offset);
    mdl->ByteCount = Length;
    KernelGuard guard;
    pool->mdls[mdl] = {size, 0};
    return mdl;
}

VOID IoFreeMdl(PMDL Mdl) {
    PlatformCall call;
    verifier::requireIrql("IoFreeMdl", kDispatchLevel);
    KernelGuard guard;
    auto found = pool->mdls.find(Mdl);
    if (found == pool->mdls.end()) {
        verifier::fail(verifier::Rule::PoolFreedTwice, "IoFreeMdl", fmt::format("{}", fmt::ptr(Mdl)),
                       "this is no MDL, or one that was freed before");
    }
    requireNotInUse(Mdl, found->second.size, "IoFreeMdl");
    pool->mdls.erase(found);
    std::free(Mdl);
}

VOID MmBuildMdlForNonPagedPool(PMDL Mdl) {
    PlatformCall call;
    verifier::requireIrql("MmBuildMdlForNonPagedPool", kDispatchLevel);
    KernelGuard guard;
    auto found = pool->mdls.find(Mdl);
    if (found == pool->mdls.end()) {
        verifier::fail(verifier::Rule::HandleStale, "MmBuildMdlForNonPagedPool",
                       fmt::format("{}", fmt::ptr(Mdl)), "this is no MDL, or one that was freed");
    }
    auto* begin = static_cast<std::uint8_t*>(MmGetMdlVirtualAddress(Mdl));
    if (liesInFreed(begin)) {
        verifier::fail(verifier::Rule::BufferLifetime, "MmBuildMdlForNonPagedPool",
                       fmt::format("{}", fmt::ptr(begin)), "the block that the MDL describes has been freed");
    }
    found->second.block = 0;
    // Memory of the machine's other drivers is not known here and taken for non-paged.
    if (const Block* block = findLive(begin)) {
        found->second.block = block->number;
        if (block->type == PagedPool) {
            verifier::fail(verifier::Rule::Argument, "MmBuildMdlForNonPagedPool", describe(*block),
                           "the block is from paged pool");
        }
        if (begin + Mdl->ByteCount > block->end()) {
            verifier::fail(verifier::Rule::BufferTooShort, "MmBuildMdlForNonPagedPool", describe(*block),
                           fmt::format("the MDL describes {} bytes from offset {}", Mdl->ByteCount,
                                       begin - block->data));
        }
    }
    Mdl->MappedSystemVa = begin;
    Mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG, ULONG) {
    PlatformCall call;
    verifier::requireIrql("MmMapLockedPagesSpecifyCache", kDispatchLevel);
    verifier::fail(verifier::Rule::Argument, "MmMapLockedPagesSpecifyCache", fmt::format("{}", fmt::ptr(Mdl)),
                   "the MDL's pages are not locked: it was not built for non-paged pool");
}

} // extern "C"
