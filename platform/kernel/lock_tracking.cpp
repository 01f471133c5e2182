#include "platform/kernel/lock_tracking.h"

#include "platform/kernel/core.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <fmt/format.h>

namespace kernel {

namespace {

using verifier::HeldLock;
using verifier::LockKind;
using verifier::lockOrder;
using verifier::Rule;

std::string here(std::string_view call) {
    const char* callback = currentCallback();
    return fmt::format("{}{}{} on {}", call, *callback != 0 ? " in " : "", callback, currentTask().name);
}

HeldLock* findHeld(Task& task, const void* lock) {
    auto held = std::find_if(task.locks.begin(), task.locks.end(),
                             [lock](const HeldLock& entry) { return entry.lock == lock; });
    return held == task.locks.end() ? nullptr : &*held;
}

void noteOrder(const void* held, const void* lock, std::string_view call) {
    if (lockOrder().isKnown(held, lock)) {
        return;
    }
    const std::string opposite = lockOrder().opposite(held, lock);
    if (!opposite.empty()) {
        verifier::fail(Rule::LockOrder, call, lockOrder().describe(lock),
                       fmt::format("taken while {} is held, against the order seen before: {}",
                                   lockOrder().describe(held), opposite));
    }
    lockOrder().add(held, lock, here(call));
}

// Kernel lock held.
void requireNotInUse(const void* begin, const void* end, std::string_view call) {
    if (currentCore() == nullptr) {
        return;
    }
    const auto inside = [begin, end](const void* object) { return object >= begin && object < end; };
    for (const Task* task : currentCore()->tasks()) {
        // A task notes its locks without the kernel lock, so those of other tasks can be read only under
        // `sim`, which runs one task at a time.
        if (task == currentTaskOrNull() || currentCore()->options().mode == Mode::Sim) {
            for (const HeldLock& held : task->locks) {
                if (inside(held.lock)) {
                    verifier::fail(Rule::LockLifetime, call, lockOrder().describe(held.lock),
                                   fmt::format("its memory is given back while {} holds it", task->name));
                }
            }
        }
        if (task->state != Task::State::Blocked || task->woken) {
            continue;
        }
        const WaitReason& reason = task->reason;
        if (inside(reason.object) || std::any_of(reason.objects.begin(), reason.objects.end(), inside)) {
            verifier::fail(
                Rule::LockLifetime, call, fmt::format("{}", begin),
                fmt::format("its memory is given back while {} waits in {}", task->name, reason.call));
        }
    }
}

} // namespace

void lockAcquiring(const void* lock, LockKind kind, std::string_view name, std::string_view call) {
    Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    if (findHeld(*self, lock) != nullptr) {
        if (kind == LockKind::Spin) {
            verifier::fail(Rule::LockRecursion, call, describeObject(lock),
                           "the caller holds this spin lock already");
        }
        return;
    }
    if (self->locks.empty()) {
        return;
    }
    KernelLockIfFree guard;
    lockOrder().nameIfNew(lock, name);
    for (const HeldLock& held : self->locks) {
        noteOrder(held.lock, lock, call);
    }
}

void lockAcquired(const void* lock, LockKind kind) {
    Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    if (HeldLock* held = findHeld(*self, lock)) {
        held->depth++;
    } else {
        self->locks.push_back({lock, kind, 1});
    }
}

void lockReleased(const void* lock, std::string_view call) {
    Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    HeldLock* held = findHeld(*self, lock);
    if (held == nullptr) {
        verifier::fail(Rule::LockOwner, call, describeObject(lock), "the caller does not hold this lock");
    }
    if (--held->depth == 0) {
        self->locks.erase(self->locks.begin() + (held - self->locks.data()));
    }
}

void lockInitialized(const void* lock, std::string_view kind) {
    lockDestroyed(lock, "initialization");
    KernelLockIfFree guard;
    lockOrder().nameByKind(lock, kind);
}

void lockDestroyed(const void* lock, std::string_view call) {
    locksDestroyed(lock, static_cast<const char*>(lock) + 1, call);
}

void locksDestroyed(const void* begin, const void* end, std::string_view call) {
    KernelLockIfFree guard;
    requireNotInUse(begin, end, call);
    lockOrder().forget(begin, end);
}

unsigned locksHeld() {
    const Task* self = currentTaskOrNull();
    unsigned count = 0;
    if (self != nullptr) {
        for (const HeldLock& held : self->locks) {
            count += held.depth;
        }
    }
    return count;
}

unsigned criticalRegionsHeld() {
    const Task* self = currentTaskOrNull();
    return self == nullptr ? 0
                           : static_cast<unsigned>(std::count_if(
                                 self->locks.begin(), self->locks.end(),
                                 [](const HeldLock& held) { return held.kind == LockKind::Mutex; }));
}

void nameLock(const void* lock, std::string name) {
    KernelLockIfFree guard;
    lockOrder().name(lock, std::move(name));
}

std::string describeObject(const void* object) {
    KernelLockIfFree guard;
    return lockOrder().describe(object);
}

} // namespace kernel
