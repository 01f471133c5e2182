// The rules that the kernel layer checks.

#include "platform/kernel/dispatcher.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/interfaces.h"
#include "platform/kernel/lock_tracking.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/scheduler.h"
#include "platform/kernel/threads.h"
#include "tests/platform/rule_table.h"
#include "tests/platform/run.h"

#include <ntddk.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace kernel;
using namespace platform_test;
using verifier::Rule;

LARGE_INTEGER* relative(Time duration) {
    static LARGE_INTEGER timeout;
    timeout.QuadPart = -duration;
    return &timeout;
}

NTSTATUS waitFor(void* object, LARGE_INTEGER* timeout = nullptr) {
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, timeout);
}

// The objects that the drivers below use, made anew for every run.
struct World {
    KSPIN_LOCK spinA;
    KSPIN_LOCK spinB;
    KMUTEX mutexA;
    KMUTEX mutexB;
    KEVENT event;

    World() {
        KeInitializeSpinLock(&spinA);
        KeInitializeSpinLock(&spinB);
        KeInitializeMutex(&mutexA, 0);
        KeInitializeMutex(&mutexB, 0);
        KeInitializeEvent(&event, NotificationEvent, FALSE);
    }
};

void waitForEither(KEVENT& first, KEVENT& second) {
    PVOID objects[] = {&first, &second};
    KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
}

void threadThatWaits(PVOID event) {
    waitFor(event);
}

HANDLE startThread(PVOID event) {
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, threadThatWaits, event),
              STATUS_SUCCESS);
    return handle;
}

// With the caller's reference alone.
PVOID referenceEndedThread(World& world) {
    KeSetEvent(&world.event, 0, FALSE);
    const HANDLE handle = startThread(&world.event);
    PVOID thread = nullptr;
    (void)ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &thread, nullptr);
    ZwClose(handle);
    waitFor(thread);
    return thread;
}

struct KernelCase {
    Rule rule;
    const char* mistake;
    std::function<void(World&)> bad;
    std::function<void(World&)> good;
};

// Two callbacks for the rules about what a callback leaves behind.
World* callbackWorld;

// Damage around a block of `size` bytes, found when the block is freed, or in it after that.
KernelCase overrun(const char* mistake, std::size_t size, std::ptrdiff_t offset, bool afterFree = false) {
    const auto writeAt = [size](std::ptrdiff_t place, bool freedFirst) {
        UCHAR* block = allocate(size);
        if (!freedFirst) {
            poke(block + place);
        }
        ExFreePoolWithTag(block, kTag);
        if (freedFirst) {
            poke(block + place);
        }
        requirePoolEmpty("unload");
    };
    return {Rule::PoolOverrun, mistake, [=](World&) { writeAt(offset, afterFree); },
            [=](World&) {
                writeAt(0, false);
                writeAt(static_cast<std::ptrdiff_t>(size) - 1, false);
            }};
}

const KernelCase kCases[] = {
    {Rule::IrqlTooHigh, "a thread created at DISPATCH_LEVEL",
     [](World& world) { atDispatch([&] { startThread(&world.event); }); },
     [](World& world) {
         KeSetEvent(&world.event, 0, FALSE);
         ZwClose(startThread(&world.event));
     }},
    {Rule::IrqlTooHigh, "paged pool at DISPATCH_LEVEL",
     [](World&) { atDispatch([] { ExAllocatePoolWithTag(PagedPool, 16, kTag); }); },
     [](World&) {
         atDispatch([] { ExFreePoolWithTag(allocate(16), kTag); });
         ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 16, kTag), kTag);
     }},
    {Rule::IrqlTooHigh, "a delay at DISPATCH_LEVEL",
     [](World&) { atDispatch([] { KeDelayExecutionThread(KernelMode, FALSE, relative(10)); }); },
     [](World&) { KeDelayExecutionThread(KernelMode, FALSE, relative(10)); }},
    {Rule::IrqlTooHigh, "an interface switched on under a spin lock",
     [](World& world) {
         UNICODE_STRING link = {};
         KIRQL old;
         KeAcquireSpinLock(&world.spinA, &old);
         IoSetDeviceInterfaceState(&link, TRUE);
     },
     [](World&) {
         UNICODE_STRING link = {};
         EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_OBJECT_NAME_NOT_FOUND);
     }},
    {Rule::IrqlChanged, "a callback returns at DISPATCH_LEVEL",
     [](World&) {
         callDriver(
             "EvtBad", +[] { raiseIrql(kDispatchLevel); });
     },
     [](World&) {
         callDriver(
             "EvtGood", +[] { lowerIrql(raiseIrql(kDispatchLevel)); });
     }},
    {Rule::IrqlChanged, "two spin locks released in the order taken, with their own levels",
     [](World& world) {
         KIRQL outer;
         KIRQL inner;
         KeAcquireSpinLock(&world.spinA, &outer);
         KeAcquireSpinLock(&world.spinB, &inner);
         KeReleaseSpinLock(&world.spinA, outer);
     },
     [](World& world) {
         KIRQL outer;
         KIRQL inner;
         KeAcquireSpinLock(&world.spinA, &outer);
         KeAcquireSpinLock(&world.spinB, &inner);
         KeReleaseSpinLock(&world.spinB, inner);
         KeReleaseSpinLock(&world.spinA, outer);
     }},
    {Rule::LockLeftHeld, "a callback returns with a spin lock",
     [](World&) {
         atDispatch([] {
             callDriver(
                 "EvtBad", +[] { KeAcquireSpinLockAtDpcLevel(&callbackWorld->spinA); });
         });
     },
     [](World&) {
         atDispatch([] {
             callDriver(
                 "EvtGood", +[] {
                     KeAcquireSpinLockAtDpcLevel(&callbackWorld->spinA);
                     KeReleaseSpinLockFromDpcLevel(&callbackWorld->spinA);
                 });
         });
     }},
    {Rule::CriticalRegion, "a callback returns with a mutex",
     [](World&) {
         callDriver(
             "EvtBad", +[] { waitFor(&callbackWorld->mutexA); });
     },
     [](World&) {
         callDriver(
             "EvtGood", +[] {
                 waitFor(&callbackWorld->mutexA);
                 KeReleaseMutex(&callbackWorld->mutexA, FALSE);
             });
     }},
    {Rule::WaitAtDispatch, "a wait with a time-out at DISPATCH_LEVEL",
     [](World& world) { atDispatch([&] { waitFor(&world.event, relative(1)); }); },
     [](World& world) {
         atDispatch([&] { EXPECT_EQ(waitFor(&world.event, relative(0)), STATUS_TIMEOUT); });
     }},
    {Rule::LockOrder, "two mutexes in both orders, one task after the other",
     [](World& world) {
         const auto take = [](KMUTEX& outer, KMUTEX& inner) {
             waitFor(&outer);
             waitFor(&inner);
             KeReleaseMutex(&inner, FALSE);
             KeReleaseMutex(&outer, FALSE);
         };
         take(world.mutexA, world.mutexB);
         elsewhere([&] { take(world.mutexB, world.mutexA); });
     },
     [](World& world) {
         waitFor(&world.mutexA);
         waitFor(&world.mutexB);
         waitFor(&world.mutexA); // the owner again: no order
         KeReleaseMutex(&world.mutexA, FALSE);
         KeReleaseMutex(&world.mutexB, FALSE);
         KeReleaseMutex(&world.mutexA, FALSE);
         elsewhere([&] {
             waitFor(&world.mutexB);
             KeReleaseMutex(&world.mutexB, FALSE);
         });
     }},
    {Rule::LockOrder, "three spin locks in a ring",
     [](World& world) {
         KSPIN_LOCK third;
         KeInitializeSpinLock(&third);
         const auto take = [](KSPIN_LOCK& outer, KSPIN_LOCK& inner) {
             const KIRQL old = KeAcquireSpinLockRaiseToDpc(&outer);
             KeAcquireSpinLockAtDpcLevel(&inner);
             KeReleaseSpinLockFromDpcLevel(&inner);
             KeReleaseSpinLock(&outer, old);
         };
         take(world.spinA, world.spinB);
         take(world.spinB, third);
         take(third, world.spinA);
     },
     [](World& world) {
         KSPIN_LOCK third;
         for (KSPIN_LOCK* inner : {&world.spinB, &third}) {
             // A lock made anew in the same memory has no history.
             KeInitializeSpinLock(&third);
             const KIRQL old = KeAcquireSpinLockRaiseToDpc(&world.spinA);
             KeAcquireSpinLockAtDpcLevel(inner);
             KeReleaseSpinLockFromDpcLevel(inner);
             KeReleaseSpinLock(&world.spinA, old);
         }
         KeInitializeSpinLock(&world.spinA);
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&third);
         KeAcquireSpinLockAtDpcLevel(&world.spinA);
         KeReleaseSpinLockFromDpcLevel(&world.spinA);
         KeReleaseSpinLock(&third, old);
     }},
    {Rule::LockRecursion, "a spin lock taken twice",
     [](World& world) {
         KIRQL old;
         KeAcquireSpinLock(&world.spinA, &old);
         KeAcquireSpinLock(&world.spinA, &old);
     },
     [](World& world) {
         for (int i = 0; i < 2; i++) {
             KIRQL old;
             KeAcquireSpinLock(&world.spinA, &old);
             KeReleaseSpinLock(&world.spinA, old);
         }
     }},
    {Rule::LockOwner, "a mutex released by another task",
     [](World& world) {
         waitFor(&world.mutexA);
         elsewhere([&] { KeReleaseMutex(&world.mutexA, FALSE); });
     },
     [](World& world) {
         waitFor(&world.mutexA);
         elsewhere([&] { EXPECT_EQ(waitFor(&world.mutexA, relative(1)), STATUS_TIMEOUT); });
         KeReleaseMutex(&world.mutexA, FALSE);
     }},
    {Rule::LockOwner, "a mutex released once more than taken",
     [](World& world) {
         waitFor(&world.mutexA);
         KeReleaseMutex(&world.mutexA, FALSE);
         KeReleaseMutex(&world.mutexA, FALSE);
     },
     [](World& world) {
         waitFor(&world.mutexA);
         KeReleaseMutex(&world.mutexA, FALSE);
     }},
    {Rule::LockLifetime, "a block freed while a mutex in it is held",
     [](World&) {
         auto* mutex = reinterpret_cast<KMUTEX*>(allocate(sizeof(KMUTEX)));
         KeInitializeMutex(mutex, 0);
         waitFor(mutex);
         ExFreePoolWithTag(mutex, kTag);
     },
     [](World&) {
         auto* mutex = reinterpret_cast<KMUTEX*>(allocate(sizeof(KMUTEX)));
         KeInitializeMutex(mutex, 0);
         waitFor(mutex);
         KeReleaseMutex(mutex, FALSE);
         ExFreePoolWithTag(mutex, kTag);
     }},
    {Rule::LockLifetime, "a block freed while another task waits for an event in it",
     [](World& world) {
         auto* event = reinterpret_cast<KEVENT*>(allocate(sizeof(KEVENT)));
         KeInitializeEvent(event, NotificationEvent, FALSE);
         spawn("waiter", TaskKind::Host, [&world, event] { waitForEither(world.event, *event); });
         sleepFor(1);
         ExFreePoolWithTag(event, kTag);
     },
     [](World& world) {
         auto* event = reinterpret_cast<KEVENT*>(allocate(sizeof(KEVENT)));
         KeInitializeEvent(event, NotificationEvent, FALSE);
         Task& waiter =
             spawn("waiter", TaskKind::Host, [&world, event] { waitForEither(world.event, *event); });
         sleepFor(1);
         KeSetEvent(event, 0, FALSE);
         join(waiter);
         ExFreePoolWithTag(event, kTag);
     }},
    {Rule::BufferLifetime, "a block freed while a transfer uses its last byte",
     [](World&) {
         UCHAR* block = allocate(100);
         beginBufferUse(block + 99, 1, "the transfer");
         ExFreePoolWithTag(block, kTag);
     },
     [](World&) {
         UCHAR* block = allocate(100);
         UCHAR* other = allocate(100);
         endBufferUse(beginBufferUse(block, 100, "the transfer"));
         const BufferUse use = beginBufferUse(other, 100, "another transfer");
         ExFreePoolWithTag(block, kTag);
         endBufferUse(use);
         ExFreePoolWithTag(other, kTag);
     }},
    {Rule::BufferLifetime, "an MDL freed while a transfer uses it",
     [](World&) {
         PMDL mdl = IoAllocateMdl(allocate(16), 16, FALSE, FALSE, nullptr);
         beginBufferUse(mdl, sizeof(MDL), "the transfer");
         IoFreeMdl(mdl);
     },
     [](World&) {
         UCHAR* block = allocate(16);
         IoFreeMdl(IoAllocateMdl(block, 16, FALSE, FALSE, nullptr));
         ExFreePoolWithTag(block, kTag);
     }},
    {Rule::BufferLifetime, "an MDL built for a freed block",
     [](World&) {
         UCHAR* block = allocate(16);
         PMDL mdl = IoAllocateMdl(block, 16, FALSE, FALSE, nullptr);
         ExFreePoolWithTag(block, kTag);
         MmBuildMdlForNonPagedPool(mdl);
     },
     [](World&) {
         UCHAR* block = allocate(16);
         PMDL mdl = IoAllocateMdl(block, 16, FALSE, FALSE, nullptr);
         MmBuildMdlForNonPagedPool(mdl);
         ExFreePoolWithTag(block, kTag); // nothing is sent from here on
         IoFreeMdl(mdl);
     }},
    {Rule::BufferTooShort, "an MDL longer than its block",
     [](World&) { MmBuildMdlForNonPagedPool(IoAllocateMdl(allocate(16) + 1, 16, FALSE, FALSE, nullptr)); },
     [](World&) {
         UCHAR* block = allocate(16);
         PMDL mdl = IoAllocateMdl(block + 1, 15, FALSE, FALSE, nullptr);
         MmBuildMdlForNonPagedPool(mdl);
         IoFreeMdl(mdl);
         ExFreePoolWithTag(block, kTag);
     }},
    {Rule::HandleStale, "a thread handle closed twice",
     [](World& world) {
         HANDLE handle = startThread(&world.event);
         ZwClose(handle);
         ZwClose(handle);
     },
     [](World& world) {
         KeSetEvent(&world.event, 0, FALSE);
         ZwClose(startThread(&world.event));
     }},
    {Rule::HandleStale, "a thread object used after its last reference",
     [](World& world) {
         const PVOID thread = referenceEndedThread(world);
         sleepFor(1); // the running thread's own reference is dropped
         ObDereferenceObject(thread);
         ObDereferenceObject(thread);
     },
     [](World& world) {
         const PVOID thread = referenceEndedThread(world);
         ObDereferenceObject(thread);
     }},
    {Rule::PoolTag, "a block freed with another tag",
     [](World&) { ExFreePoolWithTag(allocate(16), kTag + 1); },
     [](World&) { ExFreePoolWithTag(allocate(16), kTag); }},
    {Rule::PoolTag, "an allocation without a tag",
     [](World&) { ExAllocatePoolWithTag(NonPagedPoolNx, 16, 0); },
     [](World&) { ExFreePoolWithTag(allocate(16), kTag); }},
    overrun("a byte before a block", 64, -1),
    overrun("a byte behind a block", 61, 61),
    overrun("a byte behind a large block", 1'000'001, 1'000'001),
    overrun("a byte of a freed block", 64, 10, true),
    overrun("a byte of a freed large block", 1'000'000, 999'999, true),
    {Rule::PoolFreedTwice, "a block freed twice",
     [](World&) {
         UCHAR* block = allocate(16);
         ExFreePoolWithTag(block, kTag);
         ExFreePoolWithTag(block, kTag);
     },
     [](World&) {
         for (int i = 0; i < 2; i++) {
             ExFreePoolWithTag(allocate(16), kTag);
         }
     }},
    {Rule::PoolFreedTwice, "an address inside a block",
     [](World&) { ExFreePoolWithTag(allocate(64) + 16, kTag); },
     [](World&) { ExFreePoolWithTag(allocate(64), kTag); }},
    {Rule::PoolLeak, "a block left at unload",
     [](World&) {
         (void)allocate(16);
         requirePoolEmpty("unload");
     },
     [](World&) { requirePoolEmpty("unload"); }},
    {Rule::PoolLeak, "an MDL left at unload",
     [](World& world) {
         (void)IoAllocateMdl(&world, sizeof(world), FALSE, FALSE, nullptr);
         requirePoolEmpty("unload");
     },
     [](World& world) {
         IoFreeMdl(IoAllocateMdl(&world, sizeof(world), FALSE, FALSE, nullptr));
         requirePoolEmpty("unload");
     }},
    {Rule::ThreadLeak, "a thread that still runs at unload",
     [](World& world) {
         ZwClose(startThread(&world.event));
         requireThreadsEnded("unload");
     },
     [](World& world) {
         ZwClose(startThread(&world.event));
         KeSetEvent(&world.event, 0, FALSE);
         EXPECT_TRUE(waitForSystemThreads(kForever));
         requireThreadsEnded("unload");
     }},
    {Rule::ThreadLeak, "a thread handle never closed",
     [](World& world) {
         KeSetEvent(&world.event, 0, FALSE);
         (void)startThread(&world.event);
         waitForSystemThreads(kForever);
         requireThreadsEnded("unload");
     },
     [](World& world) {
         KeSetEvent(&world.event, 0, FALSE);
         ZwClose(startThread(&world.event));
         waitForSystemThreads(kForever);
         requireThreadsEnded("unload");
     }},
    {Rule::ThreadLeak, "a thread object never dereferenced",
     [](World& world) {
         (void)referenceEndedThread(world);
         waitForSystemThreads(kForever);
         requireThreadsEnded("unload");
     },
     [](World& world) {
         const PVOID thread = referenceEndedThread(world);
         ObDereferenceObject(thread);
         waitForSystemThreads(kForever);
         requireThreadsEnded("unload");
     }},
    {Rule::ListCorruption, "an entry removed twice",
     [](World&) {
         LIST_ENTRY head;
         LIST_ENTRY first;
         LIST_ENTRY second;
         InitializeListHead(&head);
         InsertTailList(&head, &first);
         InsertTailList(&head, &second);
         RemoveEntryList(&first);
         RemoveEntryList(&first);
     },
     [](World&) {
         LIST_ENTRY head;
         LIST_ENTRY first;
         InitializeListHead(&head);
         InsertTailList(&head, &first);
         RemoveEntryList(&first);
         EXPECT_TRUE(IsListEmpty(&head));
     }},
    {Rule::Argument, "a wait for memory that is no object",
     [](World&) {
         KEVENT event = {};
         waitFor(&event);
     },
     [](World& world) {
         KeSetEvent(&world.event, 0, FALSE);
         waitFor(&world.event);
     }},
    {Rule::Argument, "a spin lock taken for DPC level at PASSIVE_LEVEL",
     [](World& world) { KeAcquireSpinLockAtDpcLevel(&world.spinA); },
     [](World& world) {
         atDispatch([&] {
             KeAcquireSpinLockAtDpcLevel(&world.spinA);
             KeReleaseSpinLockFromDpcLevel(&world.spinA);
         });
     }},
    {Rule::Argument, "four objects without wait blocks",
     [](World& world) {
         PVOID objects[] = {&world.event, &world.event, &world.event, &world.event};
         KeWaitForMultipleObjects(4, objects, WaitAny, Executive, KernelMode, FALSE, relative(0), nullptr);
     },
     [](World& world) {
         KEVENT other;
         KeInitializeEvent(&other, NotificationEvent, TRUE);
         PVOID objects[] = {&world.event, &other};
         EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, relative(0),
                                            nullptr),
                   STATUS_WAIT_1);
     }},
    {Rule::Deadlock, "a wait for an event that is never set", [](World& world) { waitFor(&world.event); },
     [](World& world) {
         startTimer(now() + 10, [&] { KeSetEvent(&world.event, 0, FALSE); });
         waitFor(&world.event);
     }},
    {Rule::StepLimit, "a poll without an end",
     [](World& world) {
         while (KeReadStateEvent(&world.event) == 0) {
             KeDelayExecutionThread(KernelMode, FALSE, relative(10));
         }
     },
     [](World& world) {
         startTimer(now() + 100, [&] { KeSetEvent(&world.event, 0, FALSE); });
         while (KeReadStateEvent(&world.event) == 0) {
             KeDelayExecutionThread(KernelMode, FALSE, relative(10));
         }
     }},
};

RuleCase::Driver onAWorld(const std::function<void(World&)>& body) {
    return [&body](const SchedulerOptions& options) {
        return run(options, [&body] {
            // The world outlives a stopped run, which leaves its tasks where they were.
            auto* world = new World;
            callbackWorld = world;
            body(*world);
            waitForSystemThreads(kForever); // they use its event
            delete world;
        });
    };
}

TEST(LockOrder, ReportsNameTheLocksAndBothPlaces) {
    const auto report = run(sim(Strategy::InOrder), [] {
        auto* world = new World;
        kernel::nameLock(&world->mutexA, "RegisterMutex");
        waitFor(&world->mutexA);
        waitFor(&world->mutexB);
        KeReleaseMutex(&world->mutexB, FALSE);
        KeReleaseMutex(&world->mutexA, FALSE);
        waitFor(&world->mutexB);
        callbackWorld = world;
        callDriver(
            "EvtTimer", +[] { waitFor(&callbackWorld->mutexA); });
    });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->object, "RegisterMutex");
    EXPECT_EQ(report->detail, "taken while mutex 4 is held, against the order seen before: RegisterMutex "
                              "before mutex 4 (KeWaitForSingleObject on host)");
}

// Interfaces: states and notifications as clients see them.
TEST(Interfaces, NotifyInOrderAndAnswerAsTheSystemDoes) {
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        std::string changes;
        const auto report = run(sim(Strategy::Random, seed), [&changes] {
            static const GUID kClass = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
            DEVICE_OBJECT pdo = {};
            addInterfaceDevice(&pdo, u"USB\\VID_1209&PID_0003\\1");
            subscribeInterfaces(kClass, [&](bool arrived, const std::u16string& link) {
                EXPECT_EQ(link, u"\\??\\USB#VID_1209&PID_0003#1#{00000001-0002-0003-0405-060708090a0b}");
                schedulingPoint(Point::Yield);
                changes += arrived ? '+' : '-';
            });
            DEVICE_OBJECT stranger = {};
            UNICODE_STRING link = {};
            EXPECT_EQ(IoRegisterDeviceInterface(&stranger, &kClass, nullptr, &link),
                      STATUS_INVALID_DEVICE_REQUEST);
            EXPECT_EQ(IoRegisterDeviceInterface(&pdo, &kClass, nullptr, &link), STATUS_SUCCESS);
            EXPECT_TRUE(enabledInterfaces(kClass).empty());
            EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_OBJECT_NAME_NOT_FOUND);
            EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
            EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_OBJECT_NAME_EXISTS);
            ASSERT_EQ(enabledInterfaces(kClass).size(), 1u);
            EXPECT_EQ(interfaceDevice(enabledInterfaces(kClass)[0]), &pdo);
            EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_SUCCESS);
            EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
            RtlFreeUnicodeString(&link);
            removeInterfaceDevice(&pdo);
            waitForWorkers();
            requirePoolEmpty("test");
        });
        ASSERT_FALSE(report) << report->text();
        EXPECT_EQ(changes, "+-+-");
    }
}

} // namespace

std::vector<RuleCase> platform_test::kernelRules() {
    std::vector<RuleCase> cases;
    for (const KernelCase& test : kCases) {
        cases.push_back({test.rule, test.mistake, onAWorld(test.bad), onAWorld(test.good)});
    }
    return cases;
}
