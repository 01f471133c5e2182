#include "platform/kernel/ordering.h"

#include "platform/kernel/sanitizer.h"
#include "platform/kernel/task.h"

namespace kernel {

namespace {

// Inside the platform ThreadSanitizer ignores all accesses and orders; an announcement is the
// exception.
void announce(const void* object, void (*tell)(const void*)) {
    const Task* task = currentTaskOrNull();
    const bool ignoring = task != nullptr && task->account.domain == Domain::Platform;
    if (ignoring) {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    }
    tell(object);
    if (ignoring) {
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
}

} // namespace

void announceRelease(const void* object) {
    if (__tsan_release != nullptr) {
        announce(object, sanitizer::release);
    }
}

void announceAcquire(const void* object) {
    if (__tsan_acquire != nullptr) {
        announce(object, sanitizer::acquire);
    }
}

} // namespace kernel
