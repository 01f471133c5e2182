// The kernel layer's own entries into the lock bookkeeping.
#pragma once

#include <string_view>

namespace verifier {

// A lock's memory was prepared: whatever was known of that address is void. Until somebody names it, reports
// call it by its kind and the order of initialisation ("mutex 3"), which is the same in every replay.
void lockInitialized(const void* lock, std::string_view kind);

// The memory [begin, end) is given back by `call`, with all locks in it. Reports LockLifetime when a task
// holds one of them or waits for an object there.
void locksDestroyed(const void* begin, const void* end, std::string_view call);

} // namespace verifier
