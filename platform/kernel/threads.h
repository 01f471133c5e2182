// System threads of the driver: objects, handles, and who is still there at unload.
#pragma once

#include <ntddk.h>

#include <string_view>

namespace kernel {

// References to thread objects: open handles, pointers, and threads that have not ended.
unsigned threadReferences();

// Driver threads whose routine has not returned.
unsigned runningSystemThreads();

// Reports ThreadLeak when a driver thread runs, a thread handle is open or a thread object still referenced.
// A thread has ended when its object is signaled: from then on it executes nothing of the driver.
void requireThreadsEnded(std::string_view call);

// Waits until all of them have ended; false when one still runs at `deadline`.
bool waitForSystemThreads(LONGLONG deadline);

} // namespace kernel
