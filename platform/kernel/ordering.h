// Tells ThreadSanitizer of an order that Windows guarantees: an event set before the wait that it ends, one
// holder of a spin lock before the next. No effect in other builds.
#pragma once

namespace kernel {

void announceRelease(const void* object);
void announceAcquire(const void* object);

} // namespace kernel
