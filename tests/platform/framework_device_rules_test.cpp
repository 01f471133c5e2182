// Rules about a device's life: what belongs to which step, and the pipes of a configuration.
#include "tests/platform/framework_world.h"

#include <gtest/gtest.h>

namespace platform_test {

namespace {

using verifier::Rule;

// A thread that ends by itself after a second.
HANDLE startBriefThread() {
    const auto routine = [](PVOID) {
        LARGE_INTEGER second;
        second.QuadPart = WDF_REL_TIMEOUT_IN_SEC(1);
        KeDelayExecutionThread(KernelMode, FALSE, &second);
    };
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, routine, nullptr), STATUS_SUCCESS);
    return handle;
}

// The body has DriverEntry fail.
void loadFails(World& world, const Body& body) {
    body(world);
    world.bench.machine().run(
        [&] { EXPECT_EQ(world.bench.machine().loadDriver(callbacks::driverEntry), STATUS_UNSUCCESSFUL); });
}

// The body has the start of the device fail.
void startFails(World& world, const Body& body) {
    body(world);
    world.bench.run(
        [&] { EXPECT_EQ(world.bench.machine().startStatus(world.bench.plug()), STATUS_UNSUCCESSFUL); });
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
    // A preprocess callback that does more after each packet, or after those only that leave the device.
    const auto afterPackets = [passOn](World& world, bool afterRemoval, const std::function<void()>& use) {
        world.bench.driver.preprocess = [=](WDFDEVICE device, PIRP irp) {
            const bool removal = IoGetCurrentIrpStackLocation(irp)->MinorFunction == IRP_MN_REMOVE_DEVICE;
            const NTSTATUS status = passOn(device, irp);
            if (afterRemoval || !removal) {
                use();
            }
            return status;
        };
    };
    const auto useDevice = [=](bool afterRemoval) {
        return [=](World& world) {
            afterPackets(world, afterRemoval, [&] { (void)WdfDeviceGetDriver(world.device()); });
        };
    };
    const auto writeContext = [=](bool afterRemoval) {
        return [=](World& world) {
            auto* context = reinterpret_cast<UCHAR*>(GetPlace(world.makeObject()));
            afterPackets(world, afterRemoval, [context] { poke(context); });
        };
    };
    const auto preprocessStop = [](UCHAR majorFunction) {
        return [majorFunction](World& world) {
            world.bench.driver.init = [majorFunction](PWDFDEVICE_INIT init) {
                UCHAR minor = IRP_MN_STOP_DEVICE;
                EXPECT_EQ(WdfDeviceInitAssignWdmIrpPreprocessCallback(init, callbacks::preprocess,
                                                                      majorFunction, &minor, 1),
                          STATUS_SUCCESS);
            };
        };
    };
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
        {Rule::ThreadLeak, "a thread that ends only after the driver was unloaded",
         [](World&) { ZwClose(startBriefThread()); },
         [](World&) {
             const HANDLE handle = startBriefThread();
             PVOID thread = nullptr;
             EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &thread, nullptr),
                       STATUS_SUCCESS);
             ZwClose(handle);
             EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
             ObDereferenceObject(thread);
         }},
        {Rule::ThreadLeak, "a thread of a driver that then refuses to load", loadFails,
         [](World& world) {
             world.bench.driver.entry = [](WDFDRIVER) {
                 ZwClose(startBriefThread());
                 return STATUS_UNSUCCESSFUL;
             };
         },
         loadFails,
         [](World& world) { world.bench.driver.entry = [](WDFDRIVER) { return STATUS_UNSUCCESSFUL; }; }},
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
        {Rule::PnpOrder, "the initialization record used after the device was created", callbacksOnly,
         [=](World& world) {
             keepInit(world);
             world.bench.driver.add = [=, &world](WDFDEVICE) {
                 useKeptInit(world);
                 return STATUS_SUCCESS;
             };
         },
         callbacksOnly, useInitInTime},
        {Rule::PnpOrder, "the initialization record used after device add", callbacksOnly,
         [=](World& world) {
             keepInit(world);
             world.bench.driver.prepare = [=, &world](WDFDEVICE) {
                 useKeptInit(world);
                 return STATUS_SUCCESS;
             };
         },
         callbacksOnly, useInitInTime},
        {Rule::ReaderRunning, "a reader that runs on when the device leaves D0", callbacksAndSleep,
         [](World& world) { world.startReaderInPrepare(); }, callbacksAndSleep,
         [](World& world) { world.startAndStopReader(); }},
        {Rule::ReaderRunning, "a reader that runs on when the start has failed", startFails,
         [](World& world) {
             world.startReaderInPrepare();
             world.bench.driver.d0Entry = [](WDFDEVICE) { return STATUS_UNSUCCESSFUL; };
         },
         startFails,
         [](World& world) {
             world.startReaderInPrepare();
             world.bench.driver.d0Entry = [&world](WDFDEVICE) {
                 WdfIoTargetStop(world.reportsIo(), WdfIoTargetCancelSentIo);
                 return STATUS_UNSUCCESSFUL;
             };
         }},
        {Rule::ReaderRunning, "a reader that runs on when its pipe is selected anew", runWithReader,
         [](World& world) { (void)world.target.selectConfig(); }, runWithReader,
         [](World& world) {
             WdfIoTargetStop(world.reportsIo(), WdfIoTargetCancelSentIo);
             EXPECT_EQ(world.target.selectConfig(), STATUS_SUCCESS);
         }},
        {Rule::TargetState, "a readers-failed callback that stops its pipe", runWithReader,
         [](World& world) {
             world.readersFailed = [](WDFUSBPIPE pipe, NTSTATUS, USBD_STATUS) -> BOOLEAN {
                 WdfIoTargetStop(WdfUsbTargetPipeGetIoTarget(pipe), WdfIoTargetCancelSentIo);
                 return FALSE;
             };
             world.bench.device.endRead(usb::Status::Error);
             world.settle();
         },
         runWithReader,
         [](World& world) {
             world.readersFailed = [](WDFUSBPIPE, NTSTATUS, USBD_STATUS) -> BOOLEAN { return FALSE; };
             world.bench.device.endRead(usb::Status::Error);
             world.settle();
             WdfIoTargetStop(world.reportsIo(), WdfIoTargetCancelSentIo);
         }},
        {Rule::HandleStale, "a report's memory used after the callback", runWithReader,
         [](World& world) {
             world.bench.device.report(1);
             world.settle();
             (void)WdfMemoryGetBuffer(world.lastReport, nullptr);
         },
         runWithReader,
         [](World& world) {
             world.onReport = [&] { WdfObjectReference(world.lastReport); };
             world.bench.device.report(1);
             world.settle();
             EXPECT_EQ(*static_cast<UCHAR*>(WdfMemoryGetBuffer(world.lastReport, nullptr)), 1);
             WdfObjectDereference(world.lastReport);
         }},
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
        {Rule::UseAfterRemoval, "a device used after the packet of its removal was handed on",
         useDevice(true), useDevice(false)},
        {Rule::UseAfterRemoval, "a context written to after the packet of its device's removal was handed on",
         writeContext(true), writeContext(false)},
        {Rule::SystemThread, "an interface enabled in a client's thread", started,
         [](World& world) {
             world.receive([&](WDFREQUEST request) {
                 (void)enableInterface(world.device());
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         },
         inPrepareHardware,
         [](World& world) { EXPECT_EQ(enableInterface(world.bench.driver.device), STATUS_SUCCESS); }},
        {Rule::PnpStatus, "a query that is answered with STATUS_NOT_SUPPORTED",
         [](World& world) {
             world.bench.driver.answers["query stop"] = STATUS_NOT_SUPPORTED;
             world.bench.machine().stop(*world.node);
         },
         [](World& world) { world.bench.machine().stop(*world.node); }},
        {Rule::PnpOrder, "a default queue on a started device",
         [](World& world) {
             (void)world.makeQueue(world.device(), [](auto& config) { config.DefaultQueue = TRUE; });
         },
         [](World& world) { EXPECT_EQ(world.makeQueue(world.device()), STATUS_SUCCESS); }},
        {Rule::Argument, "a second set of minor functions for one major function", callbacksOnly,
         preprocessStop(IRP_MJ_PNP), callbacksOnly, preprocessStop(IRP_MJ_POWER)},
        {Rule::Argument, "a queue with a callback that never comes",
         [](World& world) {
             (void)world.makeQueue(
                 world.device(), [](auto& config) { config.EvtIoStop = [](WDFQUEUE, WDFREQUEST, ULONG) {}; });
         },
         [](World& world) {
             const auto change = [](auto& config) { config.EvtIoDefault = [](WDFQUEUE, WDFREQUEST) {}; };
             EXPECT_EQ(world.makeQueue(world.device(), change), STATUS_SUCCESS);
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

} // namespace

std::vector<FrameworkCase> deviceRules() {
    return together({deviceCases()});
}

} // namespace platform_test
