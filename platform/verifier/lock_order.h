// The order in which locks were taken: a graph of the locks by address, with their names for reports.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace verifier {

enum class LockKind : std::uint8_t { Spin, Mutex };

// A lock that a task holds, in the order taken.
struct HeldLock {
    const void* lock = nullptr;
    LockKind kind = LockKind::Mutex;
    unsigned depth = 0; // mutexes may be taken again by their owner
};

class LockOrder {
  public:
    void name(const void* lock, std::string name) { locks_[lock].name = std::move(name); }
    void nameIfNew(const void* lock, std::string_view name);

    // Names a lock by its kind and the order of initialization ("mutex 3"), which is the same in every
    // replay.
    void nameByKind(const void* lock, std::string_view kind);

    // The lock's name, or the address of any other object.
    std::string describe(const void* object) const;

    // Whether `lock` was seen taken while `held` was held.
    bool isKnown(const void* held, const void* lock) const;

    // The path from `lock` to `held` along the orders seen, as "A before B (where), ..."; empty when there is
    // none.
    std::string opposite(const void* held, const void* lock) const;

    void add(const void* held, const void* lock, std::string where);

    // The memory [begin, end) no longer holds locks.
    void forget(const void* begin, const void* end);

  private:
    // That `to` was taken while its predecessor was held, and where that was seen first.
    struct Order {
        const void* to;
        std::string where;
    };

    struct Lock {
        std::string name;
        std::vector<Order> orders;
    };

    std::string path(const void* from, const void* to, std::vector<const void*>& visited) const;

    std::map<const void*, Lock> locks_; // by address, so that the locks inside a block of memory can be found
    unsigned named_ = 0;
};

// That of the current machine. Guarded by the kernel lock.
LockOrder& lockOrder();

} // namespace verifier
