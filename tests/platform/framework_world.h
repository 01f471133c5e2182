// A machine with one driver on one started device, and the form of the rules that drivers break on it.
#pragma once

#include "tests/platform/bulk_transfer.h"
#include "tests/platform/framework_bench.h"
#include "tests/platform/rule_table.h"
#include "tests/platform/run.h"

#include "platform/kernel/scheduler.h"

#include <gtest/gtest.h>

namespace platform_test {

struct PLACE {
    _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
    KMUTEX Mutex;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PLACE, GetPlace)

inline WDF_OBJECT_ATTRIBUTES attributesOf(WDFOBJECT parent) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, PLACE);
    attributes.ParentObject = parent;
    return attributes;
}

// A machine with one driver on one device, and what the bad drivers and their twins use.
class World {
  public:
    World() = default;
    explicit World(const kernel::SchedulerOptions& options) : bench(options) {}

    WDFDEVICE device() const { return bench.driver.device; }
    WDFIOTARGET io() const { return WdfUsbTargetDeviceGetIoTarget(target.usb); }
    WDFIOTARGET pipeIo() const { return WdfUsbTargetPipeGetIoTarget(target.out); }
    WDFIOTARGET reportsIo() const { return WdfUsbTargetPipeGetIoTarget(target.reports); }
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

    WDF_REQUEST_COMPLETION_PARAMS completionParams() const {
        WDF_REQUEST_COMPLETION_PARAMS params;
        WDF_REQUEST_COMPLETION_PARAMS_INIT(&params);
        WdfRequestGetCompletionParams(bulk.request, &params);
        return params;
    }

    // Sends the formatted request with its URB changed.
    void sendWith(const std::function<void(_URB_BULK_OR_INTERRUPT_TRANSFER&)>& change) {
        EXPECT_EQ(bulk.format(target, 100), STATUS_SUCCESS);
        change(*bulk.urb);
        EXPECT_TRUE(WdfRequestSend(bulk.request, io(), nullptr));
        settle();
    }

    // A setting of the bulk pipe's interface; the one of the start is 0.
    NTSTATUS selectSetting(UCHAR setting) {
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS params;
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS_INIT_SETTING(&params, setting);
        return WdfUsbInterfaceSelectSetting(WdfUsbTargetDeviceGetInterface(target.usb, 1), nullptr, &params);
    }
    NTSTATUS selectPipesAnew() { return selectSetting(1); }

    NTSTATUS configureReader(WDF_OBJECT_ATTRIBUTES* attributes = nullptr) {
        WDF_USB_CONTINUOUS_READER_CONFIG config;
        WDF_USB_CONTINUOUS_READER_CONFIG_INIT(&config, readComplete, this, 1);
        config.NumPendingReads = pendingReads;
        config.BufferAttributes = attributes;
        readersFailed = [](WDFUSBPIPE, NTSTATUS, USBD_STATUS) -> BOOLEAN { return TRUE; };
        config.EvtUsbTargetPipeReadersFailed = [](WDFUSBPIPE pipe, NTSTATUS status, USBD_STATUS usbdStatus) {
            return readersFailed(pipe, status, usbdStatus);
        };
        EXPECT_EQ(WdfUsbTargetPipeConfigContinuousReader(target.reports, &config),
                  STATUS_INVALID_BUFFER_SIZE);
        WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(target.reports);
        return WdfUsbTargetPipeConfigContinuousReader(target.reports, &config);
    }

    static void readComplete(WDFUSBPIPE, WDFMEMORY memory, size_t bytes, WDFCONTEXT context) {
        auto& self = *static_cast<World*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_LE(bytes, 1u);
        self.lastReport = memory;
        self.seen.push_back(*static_cast<std::uint8_t*>(WdfMemoryGetBuffer(memory, nullptr)));
        if (self.onReport) {
            self.onReport();
        }
    }

    // Has the driver start its reader in prepare-hardware; the second one also stops it in time.
    void startReaderInPrepare() {
        bench.driver.prepare = [this](WDFDEVICE device) {
            NTSTATUS status = target.create(device);
            if (NT_SUCCESS(status)) {
                status = configureReader();
            }
            return NT_SUCCESS(status) ? WdfIoTargetStart(reportsIo()) : status;
        };
    }
    void startAndStopReader() {
        startReaderInPrepare();
        bench.driver.selfManagedIoSuspend = [this](WDFDEVICE) {
            WdfIoTargetStop(reportsIo(), WdfIoTargetCancelSentIo);
        };
        bench.driver.selfManagedIoRestart = [this](WDFDEVICE) { return WdfIoTargetStart(reportsIo()); };
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
        EXPECT_EQ(enableInterface(device()), STATUS_SUCCESS);
        std::shared_ptr<platform::InterfaceHandle> file;
        EXPECT_EQ(bench.machine().open(bench.machine().interfaces(kClass).at(0), file), STATUS_SUCCESS);
        ULONG_PTR information = 0;
        EXPECT_EQ(bench.machine().internalControl(*file, kNeither, {}, {}, information), STATUS_SUCCESS);
        bench.machine().close(file);
    }

    // An object without behavior of its own, with room for an URB and a mutex in its context.
    WDFCOLLECTION makeObject(WDFOBJECT parent, PFN_WDF_OBJECT_CONTEXT_DESTROY destroy = nullptr) {
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        attributes.EvtDestroyCallback = destroy;
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

    WDFWORKITEM makeWorkItem(WDFOBJECT parent, PFN_WDF_WORKITEM function,
                             PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup = nullptr) {
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, function);
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        attributes.EvtCleanupCallback = cleanup;
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        return item;
    }

    NTSTATUS makeQueue(WDFOBJECT parent, const std::function<void(WDF_IO_QUEUE_CONFIG&)>& change = {}) {
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchParallel);
        config.EvtIoInternalDeviceControl = [](WDFQUEUE, WDFREQUEST, size_t, size_t, ULONG) {};
        if (change) {
            change(config);
        }
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
        WDFQUEUE queue = nullptr;
        return WdfIoQueueCreate(device(), &config, &attributes, &queue);
    }

    WDFTIMER makeTimer(
        PFN_WDF_TIMER function = [](WDFTIMER) {}, WDF_EXECUTION_LEVEL level = WdfExecutionLevelPassive,
        PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup = nullptr) {
        WDF_TIMER_CONFIG config;
        WDF_TIMER_CONFIG_INIT(&config, function);
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device());
        attributes.ExecutionLevel = level;
        attributes.EvtCleanupCallback = cleanup;
        WDFTIMER timer = nullptr;
        EXPECT_EQ(WdfTimerCreate(&config, &attributes, &timer), STATUS_SUCCESS);
        return timer;
    }

    void deleteTimer(PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup) {
        WdfObjectDelete(makeTimer([](WDFTIMER) {}, WdfExecutionLevelPassive, cleanup));
    }
    void deleteWorkItem(PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup) {
        WdfObjectDelete(makeWorkItem(
            device(), [](WDFWORKITEM) {}, cleanup));
    }

    // A timer whose callback is under way.
    WDFTIMER startSlowTimer() {
        const WDFTIMER timer = makeTimer([](WDFTIMER) { sleepFor(10 * usb::kMillisecond); });
        WdfTimerStart(timer, 0);
        bench.machine().sleep(usb::kMillisecond);
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
    platform::DeviceNode* node = nullptr; // on a started device
    PWDFDEVICE_INIT keptInit = nullptr;

    // The reader.
    UCHAR pendingReads = 1;
    std::vector<std::uint8_t> seen; // the first byte of each report
    WDFMEMORY lastReport = nullptr;
    std::function<void()> onReport;
    static inline PFN_WDF_USB_READERS_FAILED readersFailed = nullptr; // its callback has no context
};

using Body = std::function<void(World&)>;

// Where in the driver a mistake is made.
using Stage = std::function<void(World&, const Body&)>;

// On a started device, with a configuration selected and a bulk transfer made.
void started(World& world, const Body& body);

// The same with a reader that is stopped in time.
void runWithReader(World& world, const Body& body);

void inDeviceAdd(World& world, const Body& body);
void inPrepareHardware(World& world, const Body& body);

// The body fills in the driver's callbacks. The device is plugged in and, in the second case, put to sleep
// and woken again.
void callbacksOnly(World& world, const Body& body);
void callbacksAndSleep(World& world, const Body& body);

struct FrameworkCase {
    verifier::Rule rule;
    const char* mistake;
    Stage badStage;
    Body bad;
    Stage goodStage;
    Body good;

    // Both twins on a started device.
    FrameworkCase(verifier::Rule rule, const char* mistake, Body bad, Body good)
        : FrameworkCase(rule, mistake, started, std::move(bad), started, std::move(good)) {}

    // The mistake is the stage.
    FrameworkCase(verifier::Rule rule, const char* mistake, Stage badStage, Stage goodStage, const Body& body)
        : FrameworkCase(rule, mistake, std::move(badStage), body, std::move(goodStage), body) {}

    FrameworkCase(verifier::Rule rule, const char* mistake, Stage badStage, Body bad, Stage goodStage,
                  Body good)
        : rule(rule), mistake(mistake), badStage(std::move(badStage)), bad(std::move(bad)),
          goodStage(std::move(goodStage)), good(std::move(good)) {}
};

// One table for each subject.
std::vector<FrameworkCase> requestRules();
std::vector<FrameworkCase> objectRules();
std::vector<FrameworkCase> deviceRules();
std::vector<FrameworkCase> together(const std::vector<std::vector<FrameworkCase>>& tables);

} // namespace platform_test
