#include "platform/framework/memory.h"

#include "platform/framework/driver.h"
#include "platform/kernel/pool.h"

namespace framework {

namespace {

// The tag of blocks that the driver gave none for: the driver's own, or the framework's ("FxDr").
constexpr ULONG kFrameworkTag = 0x72447846;

ULONG effectiveTag(ULONG tag) {
    if (tag != 0) {
        return tag;
    }
    Driver* driver = currentDriver();
    return driver != nullptr && driver->config.DriverPoolTag != 0 ? driver->config.DriverPoolTag
                                                                  : kFrameworkTag;
}

} // namespace

Memory::Memory(void* block, std::size_t size, ULONG tag, Ref<Lookaside> lookaside)
    : Object(Kind::Memory), buffer_(block), size_(size), tag_(tag), lookaside_(std::move(lookaside)) {}

Memory::Memory(void* buffer, std::size_t size) : Object(Kind::Memory), buffer_(buffer), size_(size) {}

Memory::~Memory() {
    if (tag_) {
        kernel::freePool(buffer_, *tag_, "WdfObjectDelete");
    }
}

NTSTATUS Memory::allocate(std::string_view call, POOL_TYPE type, ULONG tag, std::size_t size,
                          Ref<Lookaside> lookaside, Memory*& memory) {
    const ULONG blockTag = effectiveTag(tag);
    void* block = kernel::allocatePool(type, size, blockTag, call);
    if (block == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    memory = new Memory(block, size, blockTag, std::move(lookaside));
    return STATUS_SUCCESS;
}

namespace {

// Creation of a memory object over a fresh block, with the object's own fault point before it.
NTSTATUS createMemory(const Call& call, const WDF_OBJECT_ATTRIBUTES* attributes, POOL_TYPE type, ULONG tag,
                      std::size_t size, Ref<Lookaside> lookaside, Ref<Memory>& result) {
    Ref<Object> parent;
    NTSTATUS status = checkAttributes(call, attributes, {}, &requireDriver(call), parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (call.fault(kernel::FaultKind::Creation)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Memory* memory = nullptr;
    status = Memory::allocate(call.name(), type, tag, size, std::move(lookaside), memory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = adoptObject(*memory, parent.get(), attributes);
    if (!NT_SUCCESS(status)) {
        memory->release();
        return status;
    }
    result = Ref<Memory>(memory);
    return STATUS_SUCCESS;
}

} // namespace

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::kDispatchLevel;

NTSTATUS WdfMemoryCreate(PWDF_OBJECT_ATTRIBUTES Attributes, POOL_TYPE PoolType, ULONG PoolTag,
                         size_t BufferSize, WDFMEMORY* Memory, PVOID* Buffer) {
    Call call("WdfMemoryCreate", PoolType == PagedPool ? kernel::kApcLevel : kDispatchLevel);
    if (Memory == nullptr || BufferSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    *Memory = nullptr;
    Ref<framework::Memory> memory;
    const NTSTATUS status =
        framework::createMemory(call, Attributes, PoolType, PoolTag, BufferSize, {}, memory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Memory = memory->wdf();
    if (Buffer != nullptr) {
        *Buffer = memory->buffer();
    }
    return STATUS_SUCCESS;
}

NTSTATUS WdfMemoryCreatePreallocated(PWDF_OBJECT_ATTRIBUTES Attributes, PVOID Buffer, size_t BufferSize,
                                     WDFMEMORY* Memory) {
    Call call("WdfMemoryCreatePreallocated", kDispatchLevel);
    if (Buffer == nullptr) {
        call.fail(framework::Rule::Argument, nullptr, "There is no buffer.");
    }
    if (Memory == nullptr || BufferSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    *Memory = nullptr;
    Ref<framework::Memory> memory;
    const NTSTATUS status =
        createObject(call, Attributes, {}, &requireDriver(call), memory,
                     [&](framework::Object*) { return new framework::Memory(Buffer, BufferSize); });
    if (NT_SUCCESS(status)) {
        *Memory = memory->wdf();
    }
    return status;
}

PVOID WdfMemoryGetBuffer(WDFMEMORY Memory, size_t* BufferSize) {
    Call call("WdfMemoryGetBuffer", kDispatchLevel);
    auto memory = call.object<framework::Memory>(Memory);
    if (BufferSize != nullptr) {
        *BufferSize = memory->size();
    }
    return memory->buffer();
}

NTSTATUS WdfLookasideListCreate(PWDF_OBJECT_ATTRIBUTES LookasideAttributes, size_t BufferSize,
                                POOL_TYPE PoolType, PWDF_OBJECT_ATTRIBUTES MemoryAttributes, ULONG PoolTag,
                                WDFLOOKASIDE* Lookaside) {
    Call call("WdfLookasideListCreate", PoolType == PagedPool ? kernel::kPassiveLevel : kDispatchLevel);
    if (Lookaside == nullptr || BufferSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    *Lookaside = nullptr;
    std::optional<WDF_OBJECT_ATTRIBUTES> memoryAttributes;
    if (MemoryAttributes != nullptr) {
        Ref<framework::Object> parent;
        const NTSTATUS status = checkAttributes(call, MemoryAttributes, {}, nullptr, parent);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        memoryAttributes = *MemoryAttributes;
    }
    Ref<framework::Lookaside> lookaside;
    const NTSTATUS status =
        createObject(call, LookasideAttributes, {}, &requireDriver(call), lookaside, [&](framework::Object*) {
            return new framework::Lookaside(BufferSize, PoolType, PoolTag, memoryAttributes);
        });
    if (NT_SUCCESS(status)) {
        *Lookaside = static_cast<WDFLOOKASIDE>(lookaside->handle());
    }
    return status;
}

NTSTATUS WdfMemoryCreateFromLookaside(WDFLOOKASIDE Lookaside, WDFMEMORY* Memory) {
    Call call("WdfMemoryCreateFromLookaside", kDispatchLevel);
    auto lookaside = call.object<framework::Lookaside>(Lookaside);
    if (Memory == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Memory = nullptr;
    Ref<framework::Memory> memory;
    const NTSTATUS status =
        framework::createMemory(call, lookaside->memoryAttributes ? &*lookaside->memoryAttributes : nullptr,
                                lookaside->poolType, lookaside->tag, lookaside->blockSize, lookaside, memory);
    if (NT_SUCCESS(status)) {
        *Memory = memory->wdf();
    }
    return status;
}
