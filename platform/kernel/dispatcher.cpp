// Events, mutexes, waits and spin locks, on the kernel's own structures.
//
// A wait is satisfied at the moment its object is signaled, not when the waiter runs again: an event that is
// set and cleared at once still ends the waits that were there. Each object lists its waiters in the order
// they came; the entries live on the waiters' stacks. Everything is guarded by the kernel lock.

#include "platform/kernel/dispatcher.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/core.h"
#include "platform/kernel/lock_tracking.h"
#include "platform/kernel/scheduler.h"
#include "platform/kernel/thread_object.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <span>
#include <unordered_map>

namespace kernel {

namespace {

struct Wait;

struct WaitEntry {
    LIST_ENTRY link;
    Wait* wait;
    DISPATCHER_HEADER* object;
    unsigned index;
};

struct Wait {
    Task* task;
    unsigned count;
    int satisfiedBy; // index of the object, -1 while none
    std::array<WaitEntry, MAXIMUM_WAIT_OBJECTS> entries;
};

KMUTANT& mutantOf(DISPATCHER_HEADER& header) {
    return *CONTAINING_RECORD(&header, KMUTANT, Header);
}

Task* ownerOf(DISPATCHER_HEADER& header) {
    return header.Type == kMutant && mutantOf(header).OwnerThread != nullptr
               ? mutantOf(header).OwnerThread->task
               : nullptr;
}

DISPATCHER_HEADER& checkedHeader(PVOID object, std::string_view call) {
    auto* header = static_cast<DISPATCHER_HEADER*>(object);
    if (header == nullptr || header->WaitListHead.Flink == nullptr ||
        (header->Type > kMutant && header->Type != kThread)) {
        verifier::fail(verifier::Rule::Argument, call, describeObject(object),
                       "this is no initialized event, mutex or thread");
    }
    return *header;
}

// Satisfies the wait of `task` if the object is signaled for it.
bool trySatisfy(DISPATCHER_HEADER& header, Task& task) {
    if (header.Type == kMutant) {
        KMUTANT& mutant = mutantOf(header);
        if (header.SignalState <= 0 && ownerOf(header) != &task) {
            return false;
        }
        header.SignalState--;
        mutant.OwnerThread = &threadObjectOf(task);
        return true;
    }
    if (header.SignalState <= 0) {
        return false;
    }
    if (header.Type == kSynchronizationEvent) {
        header.SignalState = 0;
    }
    return true;
}

void unlinkAll(Wait& wait) {
    for (unsigned i = 0; i < wait.count; i++) {
        RemoveEntryList(&wait.entries[i].link);
    }
}

void requireWaitAllowed(std::string_view call, bool poll) {
    if (currentIrql() >= kDispatchLevel && !poll) {
        verifier::fail(verifier::Rule::WaitAtDispatch, call, "",
                       "a wait that may block, at DISPATCH_LEVEL or above");
    }
    verifier::requireIrql(call, kDispatchLevel);
}

NTSTATUS waitForAny(std::span<PVOID> objects, const LARGE_INTEGER* timeout, std::string_view call) {
    const bool poll = timeout != nullptr && timeout->QuadPart == 0;
    requireWaitAllowed(call, poll);
    for (PVOID object : objects) {
        if (checkedHeader(object, call).Type == kMutant && !poll) {
            lockAcquiring(object, verifier::LockKind::Mutex, "mutex", call);
        }
    }
    schedulingPoint(Point::Wait);
    const Time deadline = deadlineOf(timeout);
    Task& self = currentTask();
    KernelGuard guard;
    int satisfiedBy = -1;
    for (unsigned i = 0; i < objects.size() && satisfiedBy < 0; i++) {
        if (trySatisfy(*static_cast<DISPATCHER_HEADER*>(objects[i]), self)) {
            satisfiedBy = static_cast<int>(i);
        }
    }
    if (satisfiedBy < 0 && !poll) {
        Wait wait;
        wait.task = &self;
        wait.count = static_cast<unsigned>(objects.size());
        wait.satisfiedBy = -1;
        for (unsigned i = 0; i < wait.count; i++) {
            auto* header = static_cast<DISPATCHER_HEADER*>(objects[i]);
            wait.entries[i] = {{}, &wait, header, i};
            InsertTailList(&header->WaitListHead, &wait.entries[i].link);
        }
        const Task* owner =
            objects.size() == 1 ? ownerOf(*static_cast<DISPATCHER_HEADER*>(objects[0])) : nullptr;
        const WaitReason reason{call, objects[0], owner, objects};
        while (wait.satisfiedBy < 0 && block(reason, deadline)) {
        }
        if (wait.satisfiedBy < 0) {
            unlinkAll(wait);
        }
        satisfiedBy = wait.satisfiedBy;
    }
    if (satisfiedBy < 0) {
        return STATUS_TIMEOUT;
    }
    PVOID object = objects[static_cast<std::size_t>(satisfiedBy)];
    announceAcquire(object);
    if (static_cast<DISPATCHER_HEADER*>(object)->Type == kMutant) {
        lockAcquired(object, verifier::LockKind::Mutex);
    }
    return STATUS_WAIT_0 + satisfiedBy;
}

// Tasks that spin for a lock, by the lock's address. A lock that is released is taken by the task that runs
// first, as on the real machine.
base::MachinePart<std::unordered_map<const KSPIN_LOCK*, std::vector<Task*>>> spinningFor;

Task* spinLockOwner(const KSPIN_LOCK& lock) {
    return reinterpret_cast<Task*>(lock & ~KSPIN_LOCK{1});
}

void takeSpinLock(KSPIN_LOCK& lock, std::string_view call) {
    Task* self = currentTaskOrNull();
    {
        KernelGuard guard;
        while (lock != 0) {
            (*spinningFor)[&lock].push_back(&currentTask());
            block({call, &lock, spinLockOwner(lock)}, kForever);
        }
        lock = reinterpret_cast<KSPIN_LOCK>(self) | 1;
    }
    announceAcquire(&lock);
    lockAcquired(&lock, verifier::LockKind::Spin);
}

void giveSpinLock(KSPIN_LOCK& lock, std::string_view call) {
    if (currentTaskOrNull() != nullptr && currentIrql() < kDispatchLevel) {
        verifier::fail(verifier::Rule::IrqlChanged, call, describeObject(&lock),
                       "a spin lock is released below DISPATCH_LEVEL");
    }
    lockReleased(&lock, call);
    announceRelease(&lock);
    KernelGuard guard;
    lock = 0;
    auto waiters = spinningFor->extract(&lock);
    if (!waiters.empty()) {
        for (Task* task : waiters.mapped()) {
            wake(*task);
        }
    }
}

void requireNoSpinLockHeld(std::string_view call) {
    const Task* self = currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    for (const verifier::HeldLock& held : self->locks) {
        if (held.kind == verifier::LockKind::Spin) {
            verifier::fail(verifier::Rule::IrqlChanged, call, describeObject(held.lock),
                           "the level would drop below DISPATCH_LEVEL while this spin lock is held");
        }
    }
}

} // namespace

LONGLONG deadlineOf(const LARGE_INTEGER* timeout) {
    if (timeout == nullptr) {
        return kForever;
    }
    if (timeout->QuadPart >= 0) {
        return atTick(timeout->QuadPart - kSystemTimeAtStart);
    }
    const Time start = now();
    const LONGLONG duration = timeout->QuadPart == INT64_MIN ? INT64_MAX : -timeout->QuadPart;
    return duration >= kForever - start ? kForever - 1 : atTick(start + duration);
}

void satisfyWaiters(DISPATCHER_HEADER& header) {
    LIST_ENTRY* head = &header.WaitListHead;
    while (!IsListEmpty(head)) {
        WaitEntry& entry = *CONTAINING_RECORD(head->Flink, WaitEntry, link);
        Wait& wait = *entry.wait;
        if (!trySatisfy(header, *wait.task)) {
            break;
        }
        wait.satisfiedBy = static_cast<int>(entry.index);
        unlinkAll(wait);
        wake(*wait.task);
    }
    const Task* owner = ownerOf(header);
    for (LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        Wait& wait = *CONTAINING_RECORD(link, WaitEntry, link)->wait;
        if (wait.count == 1) {
            changeWaitOwner(*wait.task, owner);
        }
    }
}

KIRQL acquireSpinLock(KSPIN_LOCK& lock, std::string_view call) {
    PlatformCall platform;
    verifier::requireIrql(call, kDispatchLevel);
    lockAcquiring(&lock, verifier::LockKind::Spin, "spin lock", call);
    const unsigned old = raiseIrql(kDispatchLevel);
    if (old == kDispatchLevel) {
        schedulingPoint(Point::Lock);
    }
    takeSpinLock(lock, call);
    return static_cast<KIRQL>(old);
}

void releaseSpinLock(KSPIN_LOCK& lock, KIRQL oldIrql, std::string_view call) {
    PlatformCall platform;
    giveSpinLock(lock, call);
    if (oldIrql < kDispatchLevel) {
        requireNoSpinLockHeld(call);
        lowerIrql(oldIrql);
    } else {
        schedulingPoint(Point::Lock);
    }
}

} // namespace kernel

using namespace kernel;

extern "C" {

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    PlatformCall call;
    Event->Header = {};
    Event->Header.Type = Type == NotificationEvent ? kNotificationEvent : kSynchronizationEvent;
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN Wait) {
    PlatformCall call;
    // With Wait the caller announces that a wait follows at once, which it may not do at DISPATCH_LEVEL.
    verifier::requireIrql("KeSetEvent", Wait ? kApcLevel : kDispatchLevel);
    DISPATCHER_HEADER& header = checkedHeader(Event, "KeSetEvent");
    announceRelease(Event);
    LONG old = 0;
    {
        KernelGuard guard;
        old = header.SignalState;
        header.SignalState = 1;
        satisfyWaiters(header);
    }
    schedulingPoint(Point::Event);
    return old;
}

LONG KeResetEvent(PRKEVENT Event) {
    PlatformCall call;
    verifier::requireIrql("KeResetEvent", kDispatchLevel);
    DISPATCHER_HEADER& header = checkedHeader(Event, "KeResetEvent");
    // Before as well: an event that another task sets just before the reset is lost.
    schedulingPoint(Point::Event);
    LONG old = 0;
    {
        KernelGuard guard;
        old = header.SignalState;
        header.SignalState = 0;
    }
    schedulingPoint(Point::Event);
    return old;
}

VOID KeClearEvent(PRKEVENT Event) {
    KeResetEvent(Event);
}

LONG KeReadStateEvent(PRKEVENT Event) {
    PlatformCall call;
    verifier::requireIrql("KeReadStateEvent", kDispatchLevel);
    DISPATCHER_HEADER& header = checkedHeader(Event, "KeReadStateEvent");
    schedulingPoint(Point::Event);
    KernelGuard guard;
    return header.SignalState;
}

VOID KeInitializeMutex(PRKMUTEX Mutex, ULONG) {
    PlatformCall call;
    *Mutex = {};
    Mutex->Header.Type = kMutant;
    Mutex->Header.Size = sizeof(KMUTANT) / sizeof(LONG);
    Mutex->Header.SignalState = 1;
    Mutex->ApcDisable = 1;
    InitializeListHead(&Mutex->Header.WaitListHead);
    InitializeListHead(&Mutex->MutantListEntry);
    lockInitialized(Mutex, "mutex");
}

LONG KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait) {
    PlatformCall call;
    verifier::requireIrql("KeReleaseMutex", Wait ? kApcLevel : kDispatchLevel);
    DISPATCHER_HEADER& header = checkedHeader(Mutex, "KeReleaseMutex");
    lockReleased(Mutex, "KeReleaseMutex");
    announceRelease(Mutex);
    LONG old = 0;
    {
        KernelGuard guard;
        old = header.SignalState++;
        if (header.SignalState == 1) {
            Mutex->OwnerThread = nullptr;
            satisfyWaiters(header);
        }
    }
    schedulingPoint(Point::Lock);
    return old;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout) {
    PlatformCall call;
    return waitForAny({&Object, 1}, Timeout, "KeWaitForSingleObject");
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID* Object, WAIT_TYPE WaitType, KWAIT_REASON,
                                  KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray) {
    PlatformCall call;
    const ULONG limit = WaitBlockArray != nullptr ? MAXIMUM_WAIT_OBJECTS : THREAD_WAIT_OBJECTS;
    if (Count == 0 || Count > limit) {
        verifier::fail(verifier::Rule::Argument, "KeWaitForMultipleObjects", fmt::format("{}", Count),
                       fmt::format("1 to {} objects are allowed, and more only with wait blocks", limit));
    }
    if (WaitType != WaitAny) {
        verifier::fail(verifier::Rule::Argument, "KeWaitForMultipleObjects", "",
                       "this platform offers WaitAny only");
    }
    return waitForAny({Object, Count}, Timeout, "KeWaitForMultipleObjects");
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval) {
    PlatformCall call;
    verifier::requireIrql("KeDelayExecutionThread", kApcLevel);
    schedulingPoint(Point::Yield);
    const Time deadline = deadlineOf(Interval);
    KernelGuard guard;
    while (block({"KeDelayExecutionThread", nullptr, nullptr}, deadline)) {
    }
    return STATUS_SUCCESS;
}

KIRQL KeGetCurrentIrql() {
    return static_cast<KIRQL>(currentIrql());
}

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    PlatformCall call;
    *SpinLock = 0;
    lockInitialized(SpinLock, "spin lock");
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    return acquireSpinLock(*SpinLock, "KeAcquireSpinLock");
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    releaseSpinLock(*SpinLock, NewIrql, "KeReleaseSpinLock");
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    PlatformCall call;
    if (currentTaskOrNull() != nullptr && currentIrql() < kDispatchLevel) {
        verifier::fail(verifier::Rule::Argument, "KeAcquireSpinLockAtDpcLevel", describeObject(SpinLock),
                       "the caller is below DISPATCH_LEVEL");
    }
    acquireSpinLock(*SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    releaseSpinLock(*SpinLock, kDispatchLevel, "KeReleaseSpinLockFromDpcLevel");
}

} // extern "C"
