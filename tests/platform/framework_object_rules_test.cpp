// Rules about framework objects: handles, the tree, locks and the level of a call.
#include "tests/platform/framework_world.h"

#include <gtest/gtest.h>

namespace platform_test {

namespace {

using verifier::Rule;

// A call that is fine at PASSIVE_LEVEL only.
FrameworkCase passiveOnly(const char* mistake, const Body& body) {
    return {Rule::IrqlTooHigh, mistake, [body](World& world) { atDispatch([&] { body(world); }); }, body};
}

std::vector<FrameworkCase> objectCases() {
    return {
        {Rule::HandleStale, "a lock used after its deletion",
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             WdfObjectDelete(lock);
             WdfSpinLockAcquire(lock);
         },
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             WdfSpinLockAcquire(lock);
             WdfSpinLockRelease(lock);
             WdfObjectDelete(lock);
         }},
        {Rule::HandleStale, "an old handle when its place is taken again",
         [](World& world) {
             const WDFCOLLECTION old = world.makeObject();
             WdfObjectDelete(old);
             for (int i = 0; i < 3000; i++) {
                 WdfObjectDelete(world.makeObject());
             }
             (void)WdfCollectionGetCount(old);
         },
         [](World& world) {
             const WDFCOLLECTION old = world.makeObject();
             for (int i = 0; i < 3000; i++) {
                 WdfObjectDelete(world.makeObject());
             }
             EXPECT_EQ(WdfCollectionGetCount(old), 0u);
         }},
        {Rule::HandleStale, "a child used after its parent's deletion",
         [](World& world) {
             const WDFCOLLECTION parent = world.makeObject();
             const WDFCOLLECTION child = world.makeObject(parent);
             WdfObjectDelete(parent);
             (void)WdfCollectionGetCount(child);
         },
         [](World& world) {
             const WDFCOLLECTION parent = world.makeObject();
             const WDFCOLLECTION child = world.makeObject(parent);
             WdfObjectDelete(child);
             WdfObjectDelete(parent);
         }},
        {Rule::HandleStale, "a handle of another type",
         [](World& world) { WdfSpinLockAcquire(reinterpret_cast<WDFSPINLOCK>(world.makeObject())); },
         [](World& world) { (void)WdfCollectionGetCount(world.makeObject()); }},
        {Rule::HandleStale, "a context in place of its handle",
         [](World& world) { WdfObjectDelete(GetPlace(world.makeObject())); },
         [](World& world) { WdfObjectDelete(WdfObjectContextGetObject(GetPlace(world.makeObject()))); }},
        {Rule::HandleStale, "memory that is no context asked for its handle",
         [](World& world) { (void)WdfObjectContextGetObject(&world); },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             EXPECT_EQ(WdfObjectContextGetObject(GetPlace(object)), object);
         }},
        {Rule::HandleStale, "a client's request used after its completion",
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 (void)WdfRequestGetFileObject(request);
             });
         },
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 EXPECT_NE(WdfRequestGetFileObject(request), nullptr);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         }},
        {Rule::HandleStale, "a pipe object from before the last selection",
         [](World& world) {
             EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS);
             (void)WdfUsbTargetPipeWdmGetPipeHandle(world.target.out);
         },
         [](World& world) {
             EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS);
             world.target.findPipes();
             (void)WdfUsbTargetPipeWdmGetPipeHandle(world.target.out);
         }},
        {Rule::HandleStale, "an object used in its EvtDestroyCallback",
         [](World& world) {
             WdfObjectDelete(world.makeObject(world.device(), [](WDFOBJECT object) {
                 (void)WdfCollectionGetCount(static_cast<WDFCOLLECTION>(object));
             }));
         },
         [](World& world) {
             WdfObjectDelete(world.makeObject(world.device(), [](WDFOBJECT object) {
                 EXPECT_EQ(GetPlace(object)->Urb.TransferBufferLength, 0u);
             }));
         }},
        {Rule::HandleDeletedTwice, "an object deleted twice",
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             WdfObjectDelete(object);
             WdfObjectDelete(object);
         },
         [](World& world) { WdfObjectDelete(world.makeObject()); }},
        {Rule::HandleDeletedTwice, "the same with a reference that keeps the object",
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             WdfObjectReference(object);
             WdfObjectDelete(object);
             WdfObjectDelete(object);
         },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             WdfObjectReference(object);
             WdfObjectDelete(object);
             WdfObjectDereference(object);
         }},
        {Rule::HandleDeletedTwice, "a registry key closed twice",
         [](World& world) {
             const WDFKEY key = world.openKey();
             WdfRegistryClose(key);
             WdfRegistryClose(key);
         },
         [](World& world) { WdfRegistryClose(world.openKey()); }},
        {Rule::ObjectTree, "a reference dropped that was never taken",
         [](World& world) { WdfObjectDereference(world.makeObject()); },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             WdfObjectReference(object);
             WdfObjectDereference(object);
         }},
        {Rule::ObjectTree, "the device object deleted", [](World& world) { WdfObjectDelete(world.device()); },
         [](World& world) { WdfObjectDelete(world.makeObject(world.device())); }},
        {Rule::ObjectTree, "a pipe deleted", [](World& world) { WdfObjectDelete(world.target.out); },
         [](World& world) { EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS); }},
        {Rule::ObjectTree, "a client's request deleted",
         [](World& world) { world.receive([](WDFREQUEST request) { WdfObjectDelete(request); }); },
         [](World& world) {
             world.receive([](WDFREQUEST request) { WdfRequestComplete(request, STATUS_SUCCESS); });
         }},
        {Rule::ObjectTree, "a work item under the driver",
         [](World& world) { world.makeWorkItem(WdfDeviceGetDriver(world.device()), [](WDFWORKITEM) {}); },
         [](World& world) { world.makeWorkItem(world.makeObject(), [](WDFWORKITEM) {}); }},
        {Rule::ObjectTree, "a queue under the driver",
         [](World& world) { (void)world.makeQueue(WdfDeviceGetDriver(world.device())); },
         [](World& world) { EXPECT_EQ(world.makeQueue(world.device()), STATUS_SUCCESS); }},
        {Rule::ObjectTree, "a USB target with a parent of the driver's choice", inPrepareHardware,
         [](World& world) {
             WDF_OBJECT_ATTRIBUTES attributes = attributesOf(world.makeObject());
             (void)WdfUsbTargetDeviceCreate(world.device(), &attributes, &world.target.usb);
         },
         inPrepareHardware,
         [](World& world) {
             WDF_OBJECT_ATTRIBUTES attributes = attributesOf(nullptr);
             EXPECT_EQ(WdfUsbTargetDeviceCreate(world.device(), &attributes, &world.target.usb),
                       STATUS_SUCCESS);
         }},
        {Rule::ObjectTree, "a reader's buffers with a parent of the driver's choice", inPrepareHardware,
         [](World& world) {
             EXPECT_EQ(world.target.create(world.device()), STATUS_SUCCESS);
             WDF_OBJECT_ATTRIBUTES attributes = attributesOf(world.device());
             (void)world.configureReader(&attributes);
         },
         inPrepareHardware,
         [](World& world) {
             EXPECT_EQ(world.target.create(world.device()), STATUS_SUCCESS);
             WDF_OBJECT_ATTRIBUTES attributes = attributesOf(nullptr);
             EXPECT_EQ(world.configureReader(&attributes), STATUS_SUCCESS);
         }},
        {Rule::PoolOverrun, "a byte behind a context",
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             poke(reinterpret_cast<UCHAR*>(GetPlace(object) + 1));
             WdfObjectDelete(object);
         },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             poke(reinterpret_cast<UCHAR*>(GetPlace(object) + 1) - 1);
             WdfObjectDelete(object);
         }},
        {Rule::PoolOverrun, "a byte before a context",
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             poke(reinterpret_cast<UCHAR*>(GetPlace(object)) - 1);
             WdfObjectDelete(object);
         },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             poke(reinterpret_cast<UCHAR*>(GetPlace(object)));
             WdfObjectDelete(object);
         }},
        {Rule::PoolLeak, "an object still referenced at unload",
         [](World& world) { WdfObjectReference(world.makeObject()); },
         [](World& world) { world.makeObject(WdfDeviceGetDriver(world.device())); }},
        {Rule::Argument, "an object taken from a collection that does not list it",
         [](World& world) { WdfCollectionRemove(world.makeObject(), world.makeObject()); },
         [](World& world) {
             const WDFCOLLECTION collection = world.makeObject();
             const WDFCOLLECTION item = world.makeObject();
             EXPECT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
             WdfCollectionRemove(collection, item);
         }},
    };
}

std::vector<FrameworkCase> levelAndLockCases() {
    return {
        passiveOnly("a target stopped at DISPATCH_LEVEL",
                    [](World& world) { WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo); }),
        passiveOnly("a control transfer waited for at DISPATCH_LEVEL",
                    [](World& world) {
                        ULONG value = 0;
                        EXPECT_EQ(world.readRegister(&value, sizeof(value)), STATUS_SUCCESS);
                    }),
        passiveOnly("a synchronous send at DISPATCH_LEVEL",
                    [](World& world) {
                        EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
                        WDF_REQUEST_SEND_OPTIONS options;
                        WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
                        EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), &options));
                    }),
        passiveOnly("an alternate setting selected at DISPATCH_LEVEL",
                    [](World& world) { EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS); }),
        passiveOnly("a timer's callback waited for at DISPATCH_LEVEL",
                    [](World& world) { WdfTimerStop(world.makeTimer(), TRUE); }),
        passiveOnly(
            "a work item flushed at DISPATCH_LEVEL",
            [](World& world) { WdfWorkItemFlush(world.makeWorkItem(world.device(), [](WDFWORKITEM) {})); }),
        passiveOnly("a wait lock without a time-out at DISPATCH_LEVEL",
                    [](World& world) {
                        const WDFWAITLOCK lock = world.makeWaitLock();
                        EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
                        WdfWaitLockRelease(lock);
                    }),
        passiveOnly("paged framework memory at DISPATCH_LEVEL",
                    [](World&) {
                        WDFMEMORY memory = nullptr;
                        EXPECT_EQ(WdfMemoryCreate(nullptr, PagedPool, kTag, 16, &memory, nullptr),
                                  STATUS_SUCCESS);
                    }),
        passiveOnly("a registry key opened at DISPATCH_LEVEL", [](World& world) { world.openKey(); }),
        {Rule::LockRecursion, "a wait lock taken twice",
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             (void)WdfWaitLockAcquire(lock, nullptr);
             (void)WdfWaitLockAcquire(lock, nullptr);
         },
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             for (int i = 0; i < 2; i++) {
                 EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
                 WdfWaitLockRelease(lock);
             }
         }},
        {Rule::LockLifetime, "a wait lock deleted while it is held",
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
             WdfObjectDelete(lock);
         },
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
             WdfWaitLockRelease(lock);
             WdfObjectDelete(lock);
         }},
        {Rule::LockLifetime, "an object deleted while the mutex in its context is held",
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             KMUTEX* mutex = &GetPlace(object)->Mutex;
             KeInitializeMutex(mutex, 0);
             KeWaitForSingleObject(mutex, Executive, KernelMode, FALSE, nullptr);
             WdfObjectDelete(object);
         },
         [](World& world) {
             const WDFCOLLECTION object = world.makeObject();
             KMUTEX* mutex = &GetPlace(object)->Mutex;
             KeInitializeMutex(mutex, 0);
             KeWaitForSingleObject(mutex, Executive, KernelMode, FALSE, nullptr);
             KeReleaseMutex(mutex, FALSE);
             WdfObjectDelete(object);
         }},
        {Rule::LockOwner, "a wait lock released by another thread",
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             (void)WdfWaitLockAcquire(lock, nullptr);
             elsewhere([&] { WdfWaitLockRelease(lock); });
         },
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
             elsewhere([&] {
                 LONGLONG poll = 0;
                 EXPECT_EQ(WdfWaitLockAcquire(lock, &poll), STATUS_TIMEOUT);
             });
             WdfWaitLockRelease(lock);
         }},
        {Rule::LockOwner, "a framework spin lock released that was not taken",
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             atDispatch([&] { WdfSpinLockRelease(lock); });
         },
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             WdfSpinLockAcquire(lock);
             WdfSpinLockRelease(lock);
         }},
        {Rule::CriticalRegion, "a client's request answered with a wait lock kept",
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             world.receive([&](WDFREQUEST request) {
                 (void)WdfWaitLockAcquire(lock, nullptr);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         },
         [](World& world) {
             const WDFWAITLOCK lock = world.makeWaitLock();
             world.receive([&](WDFREQUEST request) {
                 EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
                 WdfWaitLockRelease(lock);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         }},
        {Rule::CallbackObject, "a timer started while it is deleted",
         [](World& world) {
             world.deleteTimer([](WDFOBJECT timer) { WdfTimerStart(static_cast<WDFTIMER>(timer), 0); });
         },
         [](World& world) {
             world.deleteTimer([](WDFOBJECT timer) { WdfTimerStop(static_cast<WDFTIMER>(timer), FALSE); });
         }},
        {Rule::CallbackObject, "a work item enqueued while it is deleted",
         [](World& world) {
             world.deleteWorkItem([](WDFOBJECT item) { WdfWorkItemEnqueue(static_cast<WDFWORKITEM>(item)); });
         },
         [](World& world) {
             world.deleteWorkItem([](WDFOBJECT item) { WdfWorkItemFlush(static_cast<WDFWORKITEM>(item)); });
         }},
        {Rule::CallbackObject, "two stops that wait for one timer",
         [](World& world) {
             const WDFTIMER timer = world.startSlowTimer();
             kernel::spawn("other", kernel::TaskKind::Host, [timer] { WdfTimerStop(timer, TRUE); });
             world.bench.machine().sleep(usb::kMillisecond);
             WdfTimerStop(timer, TRUE);
         },
         [](World& world) {
             const WDFTIMER timer = world.startSlowTimer();
             elsewhere([timer] { WdfTimerStop(timer, TRUE); });
             WdfTimerStop(timer, TRUE);
         }},
        {Rule::Deadlock, "a passive timer deleted in its callback",
         [](World& world) {
             WdfTimerStart(world.makeTimer([](WDFTIMER timer) { WdfObjectDelete(timer); }), 0);
             world.settle();
         },
         [](World& world) {
             WdfTimerStart(world.makeTimer([](WDFTIMER timer) { WdfObjectDelete(timer); },
                                           WdfExecutionLevelInheritFromParent),
                           0);
             world.settle();
         }},
        {Rule::Deadlock, "a work item that flushes itself",
         [](World& world) {
             WdfWorkItemEnqueue(
                 world.makeWorkItem(world.device(), [](WDFWORKITEM item) { WdfWorkItemFlush(item); }));
             world.settle();
         },
         [](World& world) {
             WdfWorkItemEnqueue(
                 world.makeWorkItem(world.device(), [](WDFWORKITEM item) { WdfObjectDelete(item); }));
             world.settle();
         }},
    };
}

} // namespace

std::vector<FrameworkCase> objectRules() {
    return together({objectCases(), levelAndLockCases()});
}

} // namespace platform_test
