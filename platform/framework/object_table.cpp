#include "platform/framework/object_table.h"

#include "platform/base/machine_state.h"

namespace framework {

namespace {

// Bits of a handle: a tag that makes the value no valid address, the generation, the index. Handles are
// multiples of 16 as real ones are.
constexpr std::uint64_t kTag = 0xDFull << 56;
constexpr unsigned kIndexShift = 4;
constexpr unsigned kIndexBits = 24;
constexpr unsigned kGenerationShift = kIndexShift + kIndexBits;
constexpr std::uint64_t kIndexMask = (1ull << kIndexBits) - 1;
constexpr std::uint64_t kGenerationMask = (1ull << (56 - kGenerationShift)) - 1;

// So many entries are unused at any time: an entry is used again only after them, which keeps generations
// low.
constexpr std::size_t kUnusedEntries = 1024;

void* encode(std::uint64_t index, std::uint64_t generation) {
    return reinterpret_cast<void*>(kTag | (generation & kGenerationMask) << kGenerationShift |
                                   index << kIndexShift);
}

std::uint64_t indexOf(const void* handle) {
    return reinterpret_cast<std::uint64_t>(handle) >> kIndexShift & kIndexMask;
}

base::MachinePart<ObjectTable> table;

} // namespace

ObjectTable::~ObjectTable() {
    for (Object* object : alive()) {
        base::keepForever(std::shared_ptr<void>(object, [](void*) {}));
    }
}

void* ObjectTable::add(Object& object, Kind kind) {
    creations_++;
    std::uint32_t index = 0;
    if (free_.size() > kUnusedEntries) {
        index = free_.front();
        free_.pop_front();
    } else {
        index = static_cast<std::uint32_t>(slots_.size());
        slots_.emplace_back();
    }
    Slot& slot = slots_[index];
    slot.generation++;
    slot.object = &object;
    slot.fate = Fate::Alive;
    slot.kind = kind;
    return encode(index, slot.generation);
}

void ObjectTable::remove(const void* handle, Fate fate) {
    const auto index = static_cast<std::uint32_t>(indexOf(handle));
    Slot& slot = slots_[index];
    slot.object = nullptr;
    if (slot.fate != Fate::Completed) {
        slot.fate = fate;
    }
    free_.push_back(index);
}

ObjectTable::Found ObjectTable::find(const void* handle) const {
    const std::uint64_t index = indexOf(handle);
    if (index >= slots_.size() || handle != encode(index, slots_[index].generation)) {
        return {};
    }
    const Slot& slot = slots_[index];
    return {slot.object, true, slot.fate, slot.kind};
}

void ObjectTable::setFate(const void* handle, Fate fate) {
    if (find(handle).known) {
        slots_[indexOf(handle)].fate = fate;
    }
}

Object* ObjectTable::ownerOf(const void* context) const {
    const auto found = contexts_.find(context);
    return found == contexts_.end() ? nullptr : found->second;
}

std::vector<Object*> ObjectTable::alive() const {
    std::vector<Object*> objects;
    for (const Slot& slot : slots_) {
        if (slot.object != nullptr) {
            objects.push_back(slot.object);
        }
    }
    return objects;
}

ObjectTable& objectTable() {
    return *table;
}

} // namespace framework
