#include "platform/kernel/threads.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/core.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/scheduler.h"
#include "platform/kernel/thread_object.h"
#include "platform/verifier/verifier.h"

#include <fmt/format.h>
#include <map>
#include <memory>

struct _OBJECT_TYPE {
    const char* name;
};

namespace kernel {

namespace {

_OBJECT_TYPE threadType = {"Thread"};
POBJECT_TYPE threadTypePointer = &threadType;

// All guarded by the kernel lock.
struct Threads {
    std::map<_KTHREAD*, std::unique_ptr<_KTHREAD>> objects;
    std::map<HANDLE, _KTHREAD*> handles;
    std::uintptr_t lastHandle = 0;
    unsigned started = 0; // by the driver
    unsigned running = 0; // of these
};
base::MachinePart<Threads> threads;

const int runningChannel = 0; // woken whenever a driver thread ends

// Leaves the start routine of a system thread from wherever it is.
struct ThreadExit {};

void dropReference(_KTHREAD& thread) {
    if (--thread.references == 0) {
        threads->objects.erase(&thread);
    }
}

_KTHREAD& createThreadObject(unsigned references) {
    auto owned = std::make_unique<_KTHREAD>();
    _KTHREAD* thread = owned.get();
    thread->Header = {};
    thread->Header.Type = kThread;
    InitializeListHead(&thread->Header.WaitListHead);
    thread->references = references;
    threads->objects.emplace(thread, std::move(owned));
    return *thread;
}

_KTHREAD* checkedHandle(HANDLE handle, std::string_view call) {
    const auto found = threads->handles.find(handle);
    if (found == threads->handles.end()) {
        verifier::fail(verifier::Rule::HandleStale, call, fmt::format("{}", handle),
                       "this is no open handle");
    }
    return found->second;
}

_KTHREAD& checkedObject(PVOID object, std::string_view call) {
    auto* thread = static_cast<_KTHREAD*>(object);
    if (!threads->objects.contains(thread)) {
        verifier::fail(verifier::Rule::HandleStale, call, fmt::format("{}", object),
                       "this is no thread object, or one whose last reference is gone");
    }
    return *thread;
}

void runDriverThread(PKSTART_ROUTINE routine, PVOID context) {
    try {
        callDriver("system thread", routine, context);
    } catch (const ThreadExit&) {
    }
}

// Signals the thread object of a task that ends, and drops the task's reference. Kernel lock held.
void endThreadObject(Task& task) {
    _KTHREAD& thread = *task.threadObject;
    const bool system = thread.system;
    task.threadObject = nullptr;
    thread.task = nullptr;
    thread.Header.SignalState = 1;
    announceRelease(&thread);
    satisfyWaiters(thread.Header);
    dropReference(thread);
    if (system) {
        threads->running--;
        wakeChannel(&runningChannel);
    }
}

} // namespace

_KTHREAD& threadObjectOf(Task& task) {
    KernelLockIfFree guard;
    if (task.threadObject == nullptr) {
        task.threadObject = &createThreadObject(1);
        task.threadObject->task = &task;
        task.endThreadObject = endThreadObject;
    }
    return *task.threadObject;
}

unsigned threadReferences() {
    KernelLockIfFree guard;
    unsigned references = 0;
    for (const auto& [thread, object] : threads->objects) {
        references += object->references;
    }
    return references;
}

unsigned runningSystemThreads() {
    KernelLockIfFree guard;
    return threads->running;
}

bool waitForSystemThreads(LONGLONG deadline) {
    return waitUntil(&runningChannel, {"waitForSystemThreads", nullptr, nullptr}, deadline,
                     [] { return runningSystemThreads() == 0; });
}

void requireThreadsEnded(std::string_view call) {
    KernelLockIfFree guard;
    if (threads->running != 0) {
        verifier::fail(verifier::Rule::ThreadLeak, call, fmt::format("{} threads", threads->running),
                       "a driver thread still runs");
    }
    if (!threads->handles.empty()) {
        verifier::fail(verifier::Rule::ThreadLeak, call, fmt::format("{}", threads->handles.begin()->first),
                       "a thread handle was never closed");
    }
    for (const auto& [thread, owned] : threads->objects) {
        if (thread->system && thread->task == nullptr) {
            verifier::fail(verifier::Rule::ThreadLeak, call, fmt::format("{}", fmt::ptr(thread)),
                           "a thread object is still referenced");
        }
    }
}

} // namespace kernel

using namespace kernel;

extern "C" {

POBJECT_TYPE* PsThreadType = &threadTypePointer;

PKTHREAD KeGetCurrentThread() {
    PlatformCall call;
    return &threadObjectOf(currentTask());
}

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID,
                              PKSTART_ROUTINE StartRoutine, PVOID StartContext) {
    PlatformCall call;
    verifier::requireIrql("PsCreateSystemThread", kPassiveLevel);
    if (faultPoint(FaultKind::Creation, "PsCreateSystemThread")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    {
        KernelGuard guard;
        _KTHREAD& thread = createThreadObject(2); // the handle and the running thread
        thread.system = true;
        threads->running++;
        *ThreadHandle = reinterpret_cast<HANDLE>(threads->lastHandle += 4);
        threads->handles[*ThreadHandle] = &thread;
        Task& task =
            spawnDetached(fmt::format("system thread {}", ++threads->started), TaskKind::System,
                          [StartRoutine, StartContext] { runDriverThread(StartRoutine, StartContext); });
        task.threadObject = &thread;
        task.endThreadObject = endThreadObject;
        thread.task = &task;
    }
    schedulingPoint(Point::Queue);
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS) {
    verifier::requireIrql("PsTerminateSystemThread", kPassiveLevel);
    if (taskKind(currentTask()) != TaskKind::System) {
        verifier::fail(verifier::Rule::Argument, "PsTerminateSystemThread", taskName(currentTask()),
                       "the caller is no system thread of the driver");
    }
    throw ThreadExit();
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE ObjectType, KPROCESSOR_MODE,
                                   PVOID* Object, POBJECT_HANDLE_INFORMATION) {
    PlatformCall call;
    verifier::requireIrql("ObReferenceObjectByHandle", kPassiveLevel);
    if (ObjectType != nullptr && ObjectType != *PsThreadType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (faultPoint(FaultKind::Creation, "ObReferenceObjectByHandle")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KernelGuard guard;
    _KTHREAD* thread = checkedHandle(Handle, "ObReferenceObjectByHandle");
    thread->references++;
    *Object = thread;
    return STATUS_SUCCESS;
}

LONG_PTR ObfReferenceObject(PVOID Object) {
    PlatformCall call;
    verifier::requireIrql("ObReferenceObject", kDispatchLevel);
    KernelGuard guard;
    return ++checkedObject(Object, "ObReferenceObject").references;
}

LONG_PTR ObfDereferenceObject(PVOID Object) {
    PlatformCall call;
    // Dropping the last reference of a thread object at DISPATCH_LEVEL is deferred by the kernel.
    verifier::requireIrql("ObDereferenceObject", kDispatchLevel);
    KernelGuard guard;
    _KTHREAD& thread = checkedObject(Object, "ObDereferenceObject");
    const LONG_PTR left = static_cast<LONG_PTR>(thread.references) - 1;
    dropReference(thread);
    return left;
}

NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
    PlatformCall call;
    verifier::requireIrql("ZwWaitForSingleObject", kPassiveLevel);
    _KTHREAD* thread = nullptr;
    {
        KernelGuard guard;
        thread = checkedHandle(Handle, "ZwWaitForSingleObject");
        thread->references++;
    }
    const NTSTATUS status = KeWaitForSingleObject(thread, UserRequest, KernelMode, Alertable, Timeout);
    KernelGuard guard;
    dropReference(*thread);
    return status;
}

NTSTATUS ZwClose(HANDLE Handle) {
    PlatformCall call;
    verifier::requireIrql("ZwClose", kPassiveLevel);
    KernelGuard guard;
    _KTHREAD* thread = checkedHandle(Handle, "ZwClose");
    threads->handles.erase(Handle);
    dropReference(*thread);
    return STATUS_SUCCESS;
}

} // extern "C"
