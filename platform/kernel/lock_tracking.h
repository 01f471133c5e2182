// Which locks each task holds, and the rules of their order and lifetime. `lock` is the lock's address.
#pragma once

#include "platform/verifier/lock_order.h"

#include <string>
#include <string_view>

namespace kernel {

// Checks the order before the task may block; recursion is allowed for mutexes only. `name` is what reports
// call a lock that has no name yet.
void lockAcquiring(const void* lock, verifier::LockKind kind, std::string_view name, std::string_view call);
void lockAcquired(const void* lock, verifier::LockKind kind);
void lockReleased(const void* lock, std::string_view call);

// A lock's memory was prepared: what was known of that address is void. Until the lock is named, reports call
// it by its kind and the order of initialization ("mutex 3").
void lockInitialized(const void* lock, std::string_view kind);
void lockDestroyed(const void* lock, std::string_view call);

// The memory [begin, end) is given back by `call`, with all locks in it. Reports LockLifetime when a task
// holds one of them or waits for an object there.
void locksDestroyed(const void* begin, const void* end, std::string_view call);

// Those that the current task holds, each counted as often as it was taken.
unsigned locksHeld();

// Those of them that keep kernel APCs from the thread: mutexes and wait locks, each counted once.
unsigned criticalRegionsHeld();

// Gives a lock a name for reports; without one its address is shown.
void nameLock(const void* lock, std::string name);

// The lock's name, or the address of any other object, for reports.
std::string describeObject(const void* object);

} // namespace kernel
