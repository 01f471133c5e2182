// Handles: an index into a table and the generation of the entry, so that a handle of a deleted object is
// recognized as long as its entry has not gone through all generations.
#pragma once

#include "platform/framework/kind.h"

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

namespace framework {

class Object;

// What became of the last object of an entry.
enum class Fate : std::uint8_t { Alive, Deleted, DeletedByDriver, Completed, RemovedWithDevice };

// Everything here is called with the kernel lock held.
class ObjectTable {
  public:
    ObjectTable() = default;
    ~ObjectTable(); // objects that a stopped run left are never destroyed
    ObjectTable(const ObjectTable&) = delete;
    ObjectTable& operator=(const ObjectTable&) = delete;

    void* add(Object& object, Kind kind);
    void remove(const void* handle, Fate fate);

    struct Found {
        Object* object = nullptr; // null when the handle is stale
        bool known = false;       // the handle belonged to an object once
        Fate fate = Fate::Alive;
        Kind kind = Kind::Driver;
    };
    Found find(const void* handle) const;
    void setFate(const void* handle, Fate fate);

    void addContext(const void* context, Object& object) { contexts_[context] = &object; }
    void removeContext(const void* context) { contexts_.erase(context); }
    Object* ownerOf(const void* context) const;

    std::uint64_t creations() const { return creations_; }
    std::vector<Object*> alive() const;

  private:
    struct Slot {
        Object* object = nullptr;
        std::uint32_t generation = 0;
        Fate fate = Fate::Alive;
        Kind kind = Kind::Driver;
    };
    std::vector<Slot> slots_;
    std::deque<std::uint32_t> free_;
    std::unordered_map<const void*, Object*> contexts_;
    std::uint64_t creations_ = 0;
};

ObjectTable& objectTable();

} // namespace framework
