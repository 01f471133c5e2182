// System threads of the driver: objects, handles, and who is still there at unload.
#pragma once

#include <ntddk.h>

#include <string_view>

namespace kernel {

// Driver threads whose routine has not returned.
unsigned runningSystemThreads();

// Reports ThreadLeak when a driver thread runs, a thread handle is open or a thread object still referenced.
// A thread whose routine returned counts as ended even when its last instructions are still to come, as on
// Windows; the caller waits for that itself (`waitForSystemThreads`).
void requireThreadsEnded(std::string_view call);

// Gives threads that were told to end the time to do so; false when one still runs at `deadline`.
bool waitForSystemThreads(LONGLONG deadline);

void resetThreads(); // called when a machine starts

} // namespace kernel
