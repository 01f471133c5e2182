// The rules that the framework and its USB targets check.
#include "tests/platform/bulk_transfer.h"
#include "tests/platform/framework_bench.h"
#include "tests/platform/rule_table.h"

#include "platform/kernel/scheduler.h"

#include <gtest/gtest.h>

namespace {

using namespace platform_test;
using verifier::Rule;

constexpr ULONG kTag = 0x74736554;
constexpr GUID kClass = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr ULONG kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0, METHOD_NEITHER, FILE_ANY_ACCESS);

struct PLACE {
    _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PLACE, GetPlace)

WDF_OBJECT_ATTRIBUTES attributesOf(WDFOBJECT parent) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, PLACE);
    attributes.ParentObject = parent;
    return attributes;
}

// A machine with one driver on one device, and what the drivers below play with.
class World {
  public:
    explicit World(const kernel::SchedulerOptions& options) : bench(options) {}

    WDFDEVICE device() const { return bench.driver.device; }
    WDFIOTARGET io() const { return WdfUsbTargetDeviceGetIoTarget(target.usb); }
    WDFIOTARGET pipeIo() const { return WdfUsbTargetPipeGetIoTarget(target.out); }
    void settle() { bench.machine().sleep(10 * usb::kMillisecond); }

    // The bulk transfer: sent and answered, or sent and kept by the device until it is called back.
    void transfer() {
        bench.device.bulk = SmallDevice::Bulk::Accept;
        EXPECT_TRUE(bulk.send(target, 100));
        settle();
    }
    void sendOut(ULONG length = 100) {
        bench.device.bulk = SmallDevice::Bulk::Hold;
        EXPECT_TRUE(bulk.send(target, length));
    }
    void callBack() {
        EXPECT_TRUE(WdfRequestCancelSentRequest(bulk.request));
        settle();
    }

    // Sends the formatted request with its URB changed.
    void sendWith(const std::function<void(_URB_BULK_OR_INTERRUPT_TRANSFER&)>& change) {
        EXPECT_EQ(bulk.format(target, 100), STATUS_SUCCESS);
        change(*bulk.urb);
        EXPECT_TRUE(WdfRequestSend(bulk.request, io(), nullptr));
        settle();
    }

    NTSTATUS selectPipesAnew() {
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS params;
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS_INIT_SETTING(&params, 0);
        return WdfUsbInterfaceSelectSetting(WdfUsbTargetDeviceGetInterface(target.usb, 1), nullptr, &params);
    }

    NTSTATUS configureReader(WDF_OBJECT_ATTRIBUTES* attributes = nullptr) {
        WDF_USB_CONTINUOUS_READER_CONFIG config;
        WDF_USB_CONTINUOUS_READER_CONFIG_INIT(
            &config, [](WDFUSBPIPE, WDFMEMORY, size_t, WDFCONTEXT) {}, nullptr, 1);
        config.BufferAttributes = attributes;
        WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(target.reports);
        return WdfUsbTargetPipeConfigContinuousReader(target.reports, &config);
    }

    NTSTATUS readRegister(void* data, ULONG length) {
        WDF_MEMORY_DESCRIPTOR memory;
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&memory, data, length);
        WDF_USB_CONTROL_SETUP_PACKET setup;
        WDF_USB_CONTROL_SETUP_PACKET_INIT_VENDOR(&setup, BmRequestDeviceToHost, BmRequestToDevice, 0x40, 0,
                                                 0);
        return WdfUsbTargetDeviceSendControlTransferSynchronously(target.usb, nullptr, nullptr, &setup,
                                                                  &memory, nullptr);
    }

    // Has a client send a request that `answer` receives.
    void receive(const std::function<void(WDFREQUEST)>& answer) {
        bench.driver.control = [&answer](WDFREQUEST request, ULONG) { answer(request); };
        UNICODE_STRING link = {};
        EXPECT_EQ(IoRegisterDeviceInterface(WdfDeviceWdmGetPhysicalDevice(device()), &kClass, nullptr, &link),
                  STATUS_SUCCESS);
        EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
        RtlFreeUnicodeString(&link);
        std::shared_ptr<platform::InterfaceHandle> file;
        EXPECT_EQ(bench.machine().open(bench.machine().interfaces(kClass).at(0), file), STATUS_SUCCESS);
        ULONG_PTR information = 0;
        EXPECT_EQ(bench.machine().internalControl(*file, kNeither, {}, {}, information), STATUS_SUCCESS);
        bench.machine().close(file);
    }

    // An object without behaviour of its own, with room for an URB in its context.
    WDFCOLLECTION makeObject(WDFOBJECT parent) {
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        WDFCOLLECTION object = nullptr;
        EXPECT_EQ(WdfCollectionCreate(&attributes, &object), STATUS_SUCCESS);
        return object;
    }
    WDFCOLLECTION makeObject() { return makeObject(device()); }

    WDFSPINLOCK makeSpinLock() {
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device());
        WDFSPINLOCK lock = nullptr;
        EXPECT_EQ(WdfSpinLockCreate(&attributes, &lock), STATUS_SUCCESS);
        return lock;
    }

    WDFWAITLOCK makeWaitLock() {
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device());
        WDFWAITLOCK lock = nullptr;
        EXPECT_EQ(WdfWaitLockCreate(&attributes, &lock), STATUS_SUCCESS);
        return lock;
    }

    WDFWORKITEM makeWorkItem(WDFOBJECT parent, PFN_WDF_WORKITEM function) {
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, function);
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        return item;
    }

    NTSTATUS makeQueue(WDFOBJECT parent) {
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchParallel);
        config.EvtIoInternalDeviceControl = [](WDFQUEUE, WDFREQUEST, size_t, size_t, ULONG) {};
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        return WdfIoQueueCreate(device(), &config, &attributes, WDF_NO_HANDLE);
    }

    WDFTIMER makeTimer() {
        WDF_TIMER_CONFIG config;
        WDF_TIMER_CONFIG_INIT(&config, [](WDFTIMER) {});
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device());
        WDFTIMER timer = nullptr;
        EXPECT_EQ(WdfTimerCreate(&config, &attributes, &timer), STATUS_SUCCESS);
        return timer;
    }

    WDFKEY openKey() {
        WDFKEY key = nullptr;
        EXPECT_EQ(WdfDriverOpenParametersRegistryKey(WdfDeviceGetDriver(device()), STANDARD_RIGHTS_ALL,
                                                     nullptr, &key),
                  STATUS_SUCCESS);
        return key;
    }

    FrameworkBench bench;
    Target target;
    BulkTransfer bulk;
    PWDFDEVICE_INIT keptInit = nullptr;
};

using Body = std::function<void(World&)>;

// Where in the driver a mistake is made.
using Stage = std::function<void(World&, const Body&)>;

// On a started device, with a configuration selected and a bulk transfer made.
void started(World& world, const Body& body) {
    world.bench.driver.prepare = [&world](WDFDEVICE device) { return world.target.create(device); };
    world.bench.run([&] {
        ASSERT_EQ(world.bench.machine().startStatus(world.bench.plug()), STATUS_SUCCESS);
        world.bulk.create(world.target);
        body(world);
        world.bulk.destroy();
    });
}

void plugOnly(World& world) {
    world.bench.run(
        [&] { EXPECT_EQ(world.bench.machine().startStatus(world.bench.plug()), STATUS_SUCCESS); });
}

void inDeviceAdd(World& world, const Body& body) {
    world.bench.driver.add = [&](WDFDEVICE) {
        body(world);
        return STATUS_SUCCESS;
    };
    plugOnly(world);
}

void inPrepareHardware(World& world, const Body& body) {
    world.bench.driver.prepare = [&](WDFDEVICE) {
        body(world);
        return STATUS_SUCCESS;
    };
    plugOnly(world);
}

// The body fills in the driver's callbacks.
void callbacksOnly(World& world, const Body& body) {
    body(world);
    plugOnly(world);
}

struct FrameworkCase {
    Rule rule;
    const char* mistake;
    Stage badStage;
    Body bad;
    Stage goodStage;
    Body good;

    // Both twins on a started device.
    FrameworkCase(Rule rule, const char* mistake, Body bad, Body good)
        : FrameworkCase(rule, mistake, started, std::move(bad), started, std::move(good)) {}

    // The mistake is the stage.
    FrameworkCase(Rule rule, const char* mistake, Stage badStage, Stage goodStage, const Body& body)
        : FrameworkCase(rule, mistake, std::move(badStage), body, std::move(goodStage), body) {}

    FrameworkCase(Rule rule, const char* mistake, Stage badStage, Body bad, Stage goodStage, Body good)
        : rule(rule), mistake(mistake), badStage(std::move(badStage)), bad(std::move(bad)),
          goodStage(std::move(goodStage)), good(std::move(good)) {}
};

void atDispatch(const std::function<void()>& body) {
    const unsigned old = kernel::raiseIrql(kernel::kDispatchLevel);
    body();
    kernel::lowerIrql(old);
}

void elsewhere(const std::function<void()>& body) {
    kernel::join(kernel::spawn("other", kernel::TaskKind::Host, body));
}

// A call that is fine at PASSIVE_LEVEL only.
FrameworkCase passiveOnly(const char* mistake, const Body& body) {
    return {Rule::IrqlTooHigh, mistake, [body](World& world) { atDispatch([&] { body(world); }); }, body};
}

NTSTATUS format(World& world) {
    return WdfUsbTargetDeviceFormatRequestForUrb(world.target.usb, world.bulk.request, world.bulk.urbMemory,
                                                 nullptr);
}

std::vector<FrameworkCase> requestCases() {
    return {
        {Rule::RequestNotFormatted, "a request sent as it was created",
         [](World& world) { WdfRequestSend(world.bulk.request, world.io(), nullptr); },
         [](World& world) { world.transfer(); }},
        {Rule::RequestNotFormatted, "a completed request sent again",
         [](World& world) {
             world.transfer();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             world.transfer();
             world.transfer();
         }},
        {Rule::RequestNotFormatted, "a completed request formatted without a reuse",
         [](World& world) {
             world.transfer();
             (void)format(world);
         },
         [](World& world) {
             world.transfer();
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             EXPECT_EQ(format(world), STATUS_SUCCESS);
         }},
        {Rule::RequestNotFormatted, "a request sent to another target than its format's",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WdfRequestSend(world.bulk.request, world.pipeIo(), nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), nullptr));
             world.settle();
         }},
        {Rule::RequestNotFormatted, "a client's request formatted for the USB target",
         [](World& world) {
             world.receive([&](WDFREQUEST request) {
                 (void)WdfUsbTargetDeviceFormatRequestForUrb(world.target.usb, request, world.bulk.urbMemory,
                                                             nullptr);
             });
         },
         [](World& world) {
             world.receive([&](WDFREQUEST request) {
                 EXPECT_EQ(format(world), STATUS_SUCCESS);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         }},
        {Rule::RequestPending, "a request reused while it is out",
         [](World& world) {
             world.sendOut();
             (void)world.bulk.reuse();
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
         }},
        {Rule::RequestPending, "a request formatted while it is out",
         [](World& world) {
             world.sendOut();
             (void)format(world);
         },
         [](World& world) {
             EXPECT_EQ(format(world), STATUS_SUCCESS);
             EXPECT_EQ(format(world), STATUS_SUCCESS); // not sent in between
         }},
        {Rule::RequestPending, "a request sent while it is out",
         [](World& world) {
             world.sendOut();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             world.sendOut();
             world.callBack();
         }},
        {Rule::RequestPending, "a request sent while it waits at its stopped target",
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             world.callBack();
             EXPECT_EQ(WdfIoTargetStart(world.io()), STATUS_SUCCESS);
             world.transfer();
         }},
        {Rule::RequestPending, "a completion routine set while its request is out",
         [](World& world) {
             world.sendOut();
             WdfRequestSetCompletionRoutine(world.bulk.request, nullptr, nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WdfRequestSetCompletionRoutine(world.bulk.request, nullptr, nullptr);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), nullptr));
             world.settle();
         }},
        {Rule::RequestPending, "a request deleted while it is out",
         [](World& world) {
             world.sendOut();
             WdfObjectDelete(world.bulk.request);
         },
         [](World& world) {
             world.sendOut();
             world.callBack(); // and deleted after that
         }},
        {Rule::RequestCompletedTwice, "a client's request completed twice",
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         },
         [](World& world) {
             world.receive([](WDFREQUEST request) { WdfRequestComplete(request, STATUS_SUCCESS); });
         }},
        {Rule::RequestCompletedTwice, "the same with a reference that keeps the request",
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfObjectReference(request);
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, 0);
             });
         },
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfObjectReference(request);
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfObjectDereference(request);
             });
         }},
    };
}

std::vector<FrameworkCase> bufferCases() {
    return {
        {Rule::BufferLifetime, "an MDL freed while its transfer is out",
         [](World& world) {
             world.sendOut();
             IoFreeMdl(world.bulk.mdl);
         },
         [](World& world) {
             world.sendOut();
             world.callBack(); // and freed after that
         }},
        {Rule::BufferLifetime, "an MDL freed while its request waits at a stopped target",
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             IoFreeMdl(world.bulk.mdl);
         },
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             world.bulk.onCompletion = [&] {
                 // The buffer is the driver's again.
                 world.bulk.placeBytes(world.bulk.bytes.data(), 16);
             };
             world.callBack();
             EXPECT_EQ(world.bulk.completions, 1);
         }},
        {Rule::BufferLifetime, "an MDL freed before its request is sent",
         [](World& world) { world.sendWith([&](auto&) { IoFreeMdl(world.bulk.mdl); }); },
         [](World& world) { world.transfer(); }},
        {Rule::BufferLifetime, "the bytes freed while their transfer is out",
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.bulk.placeBytes(block, 100);
             world.sendOut();
             ExFreePoolWithTag(block, kTag);
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.bulk.placeBytes(block, 100);
             world.sendOut();
             world.callBack();
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "the URB freed while its transfer is out",
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendOut();
             ExFreePoolWithTag(block, kTag);
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendOut();
             world.callBack();
             world.bulk.placeUrb(&world.bulk.ownUrb);
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "the object deleted whose context holds the URB of a transfer that is out",
         [](World& world) {
             const WDFCOLLECTION owner = world.makeObject();
             world.bulk.placeUrb(&GetPlace(owner)->Urb);
             world.sendOut();
             WdfObjectDelete(owner);
         },
         [](World& world) {
             const WDFCOLLECTION owner = world.makeObject();
             world.bulk.placeUrb(&GetPlace(owner)->Urb);
             world.sendOut();
             world.callBack();
             WdfObjectDelete(owner);
         }},
        {Rule::BufferTooShort, "a transfer longer than its MDL",
         [](World& world) { world.bulk.send(world.target, 4097); },
         [](World& world) {
             EXPECT_TRUE(world.bulk.send(world.target, 4096));
             world.settle();
         }},
        {Rule::BufferTooShort, "a transfer with a length and no buffer",
         [](World& world) { world.sendWith([](auto& urb) { urb.TransferBufferMDL = nullptr; }); },
         [](World& world) {
             world.sendWith([](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBufferLength = 0;
             });
         }},
        {Rule::BufferTooShort, "a transfer beyond the end of its pool block",
         [](World& world) {
             world.sendWith([](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBuffer = ExAllocatePoolWithTag(NonPagedPoolNx, 99, kTag);
             });
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.sendWith([&](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBuffer = block;
             });
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferTooShort, "a control transfer beyond the end of its pool block",
         [](World& world) { (void)world.readRegister(ExAllocatePoolWithTag(NonPagedPoolNx, 3, kTag), 4); },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 4, kTag);
             EXPECT_EQ(world.readRegister(block, 4), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferTooShort, "URB memory shorter than its URB",
         [](World& world) {
             world.bulk.placeUrb(&world.bulk.ownUrb, sizeof(world.bulk.ownUrb) - 1);
             world.transfer();
         },
         [](World& world) {
             world.bulk.placeUrb(&world.bulk.ownUrb);
             world.transfer();
         }},
    };
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
             for (int i = 0; i < 3000; ++i) {
                 WdfObjectDelete(world.makeObject());
             }
             (void)WdfCollectionGetCount(old);
         },
         [](World& world) {
             const WDFCOLLECTION old = world.makeObject();
             for (int i = 0; i < 3000; ++i) {
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
        {Rule::PoolLeak, "an object still referenced at unload",
         [](World& world) { WdfObjectReference(world.makeObject()); },
         [](World& world) { world.makeObject(WdfDeviceGetDriver(world.device())); }},
    };
}

std::vector<FrameworkCase> deviceCases() {
    const Body createTarget = [](World& world) {
        EXPECT_EQ(world.target.create(world.device()), STATUS_SUCCESS);
    };
    const auto passOn = [](WDFDEVICE device, PIRP irp) {
        IoSkipCurrentIrpStackLocation(irp);
        return WdfDeviceWdmDispatchPreprocessedIrp(device, irp);
    };
    const auto keepInit = [](World& world) {
        world.bench.driver.init = [&world](PWDFDEVICE_INIT init) { world.keptInit = init; };
    };
    const auto useKeptInit = [](World& world) { WdfDeviceInitSetIoType(world.keptInit, WdfDeviceIoNeither); };
    const Body useInitInTime = [](World& world) {
        world.bench.driver.init = [](PWDFDEVICE_INIT init) {
            WdfDeviceInitSetIoType(init, WdfDeviceIoNeither);
        };
    };
    return {
        {Rule::UsbTarget, "a USB target created in device add", inDeviceAdd, inPrepareHardware, createTarget},
        {Rule::UsbTarget, "a USB target created on a started device", started, inPrepareHardware,
         createTarget},
        {Rule::UsbTarget, "a reader configured on a started device", started,
         [](World& world) { (void)world.configureReader(); }, inPrepareHardware,
         [createTarget](World& world) {
             createTarget(world);
             EXPECT_EQ(world.configureReader(), STATUS_SUCCESS);
         }},
        {Rule::UsbPipeHandle, "a transfer on a pipe handle from before the last selection",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS);
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS);
             world.target.findPipes();
             world.transfer();
         }},
        {Rule::UsbPipeHandle, "a selection while a transfer is out",
         [](World& world) {
             world.sendOut();
             (void)world.selectPipesAnew();
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             EXPECT_EQ(world.selectPipesAnew(), STATUS_SUCCESS);
         }},
        {Rule::PnpOrder, "an object created before the driver object", callbacksOnly,
         [](World& world) {
             world.bench.driver.beforeEntry = [] {
                 WDFSPINLOCK lock = nullptr;
                 (void)WdfSpinLockCreate(nullptr, &lock);
             };
         },
         callbacksOnly,
         [](World& world) {
             world.bench.driver.entry = [](WDFDRIVER) {
                 WDFSPINLOCK lock = nullptr;
                 return WdfSpinLockCreate(nullptr, &lock);
             };
         }},
        {Rule::PnpOrder, "the initialisation record used after the device was created", callbacksOnly,
         [=](World& world) {
             keepInit(world);
             world.bench.driver.add = [=, &world](WDFDEVICE) {
                 useKeptInit(world);
                 return STATUS_SUCCESS;
             };
         },
         callbacksOnly, useInitInTime},
        {Rule::PnpOrder, "the initialisation record used after device add", callbacksOnly,
         [=](World& world) {
             keepInit(world);
             world.bench.driver.prepare = [=, &world](WDFDEVICE) {
                 useKeptInit(world);
                 return STATUS_SUCCESS;
             };
         },
         callbacksOnly, useInitInTime},
        {Rule::PnpOrder, "a preprocessed packet that goes nowhere", callbacksOnly,
         [](World& world) { world.bench.driver.preprocess = [](WDFDEVICE, PIRP) { return STATUS_SUCCESS; }; },
         callbacksOnly, [passOn](World& world) { world.bench.driver.preprocess = passOn; }},
        {Rule::PnpOrder, "a preprocessed packet passed on with its stack location", callbacksOnly,
         [](World& world) {
             world.bench.driver.preprocess = [](WDFDEVICE device, PIRP irp) {
                 return WdfDeviceWdmDispatchPreprocessedIrp(device, irp);
             };
         },
         callbacksOnly, [passOn](World& world) { world.bench.driver.preprocess = passOn; }},
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
             for (int i = 0; i < 2; ++i) {
                 EXPECT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
                 WdfWaitLockRelease(lock);
             }
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
        {Rule::LockOwner, "a framework spin lock released that nobody took",
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             atDispatch([&] { WdfSpinLockRelease(lock); });
         },
         [](World& world) {
             const WDFSPINLOCK lock = world.makeSpinLock();
             WdfSpinLockAcquire(lock);
             WdfSpinLockRelease(lock);
         }},
        {Rule::LockLeftHeld, "a client's request answered with a wait lock kept",
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

std::vector<FrameworkCase> argumentCases() {
    return {
        {Rule::Argument, "a send option that there is not",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WDF_REQUEST_SEND_OPTIONS options;
             WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0x8000);
             WdfRequestSend(world.bulk.request, world.io(), &options);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WDF_REQUEST_SEND_OPTIONS options;
             WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), &options));
             world.settle();
         }},
        {Rule::Argument, "a target stopped with an action that there is not",
         [](World& world) { WdfIoTargetStop(world.io(), static_cast<WDF_IO_TARGET_SENT_IO_ACTION>(0)); },
         [](World& world) { WdfIoTargetStop(world.io(), WdfIoTargetLeaveSentIoPending); }},
        {Rule::Argument, "a bulk OUT URB with the direction IN",
         [](World& world) {
             world.sendWith([](auto& urb) { urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN; });
         },
         [](World& world) {
             world.sendWith([](auto& urb) { urb.TransferFlags = USBD_TRANSFER_DIRECTION_OUT; });
         }},
        {Rule::Argument, "an MDL that was never built",
         [](World& world) {
             world.sendWith([&](auto& urb) {
                 urb.TransferBufferMDL = IoAllocateMdl(world.bulk.bytes.data(), 100, FALSE, FALSE, nullptr);
             });
         },
         [](World& world) {
             world.bulk.placeBytes(world.bulk.bytes.data(), 100);
             world.transfer();
         }},
        {Rule::Argument, "an URB of another function",
         [](World& world) {
             world.sendWith([](auto& urb) { urb.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION; });
         },
         [](World& world) {
             world.sendWith([](auto& urb) { urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER; });
         }},
        {Rule::Argument, "the driver's own request completed as a client's",
         [](World& world) { WdfRequestComplete(world.bulk.request, STATUS_SUCCESS); },
         [](World& world) { world.transfer(); }},
        {Rule::Argument, "completion parameters of a wrong size",
         [](World& world) {
             world.transfer();
             WDF_REQUEST_COMPLETION_PARAMS params = {};
             WdfRequestGetCompletionParams(world.bulk.request, &params);
         },
         [](World& world) {
             world.transfer();
             WDF_REQUEST_COMPLETION_PARAMS params;
             WDF_REQUEST_COMPLETION_PARAMS_INIT(&params);
             WdfRequestGetCompletionParams(world.bulk.request, &params);
             EXPECT_EQ(params.IoStatus.Information, 100u);
         }},
        {Rule::Argument, "an object taken from a collection that does not list it",
         [](World& world) { WdfCollectionRemove(world.makeObject(), world.makeObject()); },
         [](World& world) {
             const WDFCOLLECTION collection = world.makeObject();
             const WDFCOLLECTION item = world.makeObject();
             EXPECT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
             WdfCollectionRemove(collection, item);
         }},
        {Rule::Argument, "power callbacks of a wrong size", callbacksOnly,
         [](World& world) {
             world.bench.driver.init = [](PWDFDEVICE_INIT init) {
                 WDF_PNPPOWER_EVENT_CALLBACKS none = {};
                 WdfDeviceInitSetPnpPowerEventCallbacks(init, &none);
             };
         },
         callbacksOnly,
         [](World& world) {
             world.bench.driver.init = [](PWDFDEVICE_INIT init) {
                 WDF_PNPPOWER_EVENT_CALLBACKS none;
                 WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&none);
                 WdfDeviceInitSetPnpPowerEventCallbacks(init, &none);
             };
         }},
    };
}

RuleCase::Driver inAWorld(const Stage& stage, const Body& body) {
    return [stage, body](const kernel::SchedulerOptions& options) -> std::optional<verifier::Report> {
        World world(options);
        try {
            stage(world, body);
        } catch (const verifier::Stopped& stopped) {
            return stopped.report();
        }
        return std::nullopt;
    };
}

} // namespace

std::vector<RuleCase> platform_test::frameworkRules() {
    std::vector<RuleCase> cases;
    for (const auto& group : {requestCases(), bufferCases(), objectCases(), deviceCases(),
                              levelAndLockCases(), argumentCases()}) {
        for (const FrameworkCase& test : group) {
            cases.push_back({test.rule, test.mistake, inAWorld(test.badStage, test.bad),
                             inAWorld(test.goodStage, test.good)});
        }
    }
    return cases;
}
