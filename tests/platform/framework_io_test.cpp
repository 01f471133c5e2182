// Transfers: control, bulk and the continuous reader, with their time-outs, cancellations and failures.
#include "tests/platform/framework_world.h"

#include "platform/kernel/fault_points.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using namespace platform_test;

class FrameworkIo : public testing::Test, protected World {
  protected:
    // Runs on a started device with one bulk transfer made.
    void run(const std::function<void(platform::DeviceNode&)>& body) {
        started(*this, [&](World&) { body(*node); });
    }

    NTSTATUS control(BYTE request, USHORT index, ULONG& value, LONGLONG timeout = 0) {
        WDF_MEMORY_DESCRIPTOR memory;
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&memory, &value, sizeof(value));
        WDF_USB_CONTROL_SETUP_PACKET setup;
        WDF_USB_CONTROL_SETUP_PACKET_INIT_VENDOR(
            &setup, request == 0x40 ? BmRequestDeviceToHost : BmRequestHostToDevice, BmRequestToDevice,
            request, 0, index);
        WDF_REQUEST_SEND_OPTIONS options;
        WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
        if (timeout != 0) {
            WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, timeout);
        }
        return WdfUsbTargetDeviceSendControlTransferSynchronously(target.usb, nullptr, &options, &setup,
                                                                  &memory, nullptr);
    }
};

TEST_F(FrameworkIo, ControlTransfersMoveBytesBothWaysAndTimeOut) {
    run([&](platform::DeviceNode&) {
        ULONG value = 0x12345678;
        EXPECT_EQ(control(0x41, 0x8020, value), STATUS_SUCCESS);
        value = 0;
        EXPECT_EQ(control(0x40, 0x8020, value), STATUS_SUCCESS);
        EXPECT_EQ(value, 0x12345678u);
        bench.device.deaf = true;
        const kernel::Time before = kernel::now();
        EXPECT_EQ(control(0x40, 0x8020, value, WDF_REL_TIMEOUT_IN_SEC(2)), STATUS_IO_TIMEOUT);
        EXPECT_EQ(kernel::now() - before, 2 * usb::kSecond);
    });
}

TEST_F(FrameworkIo, ABulkUrbCarriesItsMdlsBytesAndCompletesAtDispatchLevel) {
    run([&](platform::DeviceNode&) {
        bulk.bytes[0] = 0xAB;
        EXPECT_TRUE(bulk.send(target, 600));
        settle();
        EXPECT_TRUE(bulk.send(target, 0));
        settle();
        ASSERT_EQ(bench.device.sent.size(), 2u);
        EXPECT_EQ(bench.device.sent[0].size(), 600u);
        EXPECT_EQ(bench.device.sent[0][0], 0xAB);
        EXPECT_TRUE(bench.device.sent[1].empty());
        EXPECT_EQ(bulk.completions, 2);
        EXPECT_EQ(bulk.completedIrql, unsigned{DISPATCH_LEVEL});
        EXPECT_EQ(bulk.params.Type, WdfRequestTypeUsb);
        EXPECT_EQ(bulk.params.IoStatus.Status, STATUS_SUCCESS);
        EXPECT_EQ(bulk.usb.Type, WdfUsbRequestTypeDeviceUrb);
        EXPECT_EQ(bulk.usb.Parameters.DeviceUrb.Buffer, bulk.urbMemory);
    });
}

// How a transfer that the device never answers comes back, by what ended it.
TEST_F(FrameworkIo, AHeldTransferEndsWithTheStatusOfWhatEndedIt) {
    run([&](platform::DeviceNode&) {
        const struct {
            const char* name;
            std::function<void()> end;
            NTSTATUS status;
            USBD_STATUS usbdStatus;
            kernel::Time after;
        } cases[] = {
            {"time-out", [&] { bench.machine().sleep(3 * usb::kSecond); }, STATUS_IO_TIMEOUT,
             USBD_STATUS_CANCELED, 2 * usb::kSecond},
            {"cancel", [&] { EXPECT_TRUE(WdfRequestCancelSentRequest(bulk.request)); }, STATUS_CANCELLED,
             USBD_STATUS_CANCELED, 0},
            {"target stop",
             [&] {
                 const WDFIOTARGET io = WdfUsbTargetDeviceGetIoTarget(target.usb);
                 WdfIoTargetStop(io, WdfIoTargetCancelSentIo);
                 EXPECT_EQ(bulk.completions, 3); // the stop has waited for it
                 EXPECT_EQ(WdfIoTargetStart(io), STATUS_SUCCESS);
             },
             STATUS_CANCELLED, USBD_STATUS_CANCELED, 0},
            {"cable", [&] { bench.device.disconnect(); }, STATUS_NO_SUCH_DEVICE, USBD_STATUS_DEVICE_GONE, 0},
        };
        bench.device.bulk = SmallDevice::Bulk::Hold;
        int completions = 0;
        for (const auto& test : cases) {
            SCOPED_TRACE(test.name);
            const kernel::Time before = kernel::now();
            EXPECT_TRUE(bulk.send(target, 100, WDF_REL_TIMEOUT_IN_SEC(2)));
            EXPECT_EQ(bulk.completions, completions);
            test.end();
            settle();
            EXPECT_EQ(bulk.completions, ++completions);
            EXPECT_EQ(bulk.params.IoStatus.Status, test.status);
            EXPECT_EQ(bulk.usb.UsbdStatus, test.usbdStatus);
            EXPECT_GE(bulk.completedAt - before, test.after);
            EXPECT_LT(bulk.completedAt - before, test.after + usb::kMillisecond);
        }
        EXPECT_FALSE(WdfRequestCancelSentRequest(bulk.request));
    });
}

using Requests = std::vector<std::string>;

// The whole of it, in order. Setting 0 is selected where there are endpoints, although the configuration
// starts with it; an interface before one that is refused keeps its pipes.
TEST(FrameworkUsb, BringUpReadsTheDescriptorsAndSelectsEverySettingWithEndpoints) {
    const Requests whole = {"get descriptor 100 0", "get descriptor 200 0",  "get descriptor 200 0",
                            "get status 0 0",       "set configuration 1 0", "set interface 0 1",
                            "set interface 0 2"};
    const struct {
        std::string refused;
        std::size_t sent; // of the whole
        int pipes;        // on interfaces 1 and 2
    } cases[] = {{"", 7, 2},
                 {"get status 0 0", 7, 2},
                 {"set configuration 1 0", 5, 0},
                 {"set interface 0 1", 6, 0},
                 {"set interface 0 2", 7, 1}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.refused);
        FrameworkBench bench;
        Target target;
        bench.driver.prepare = [&](WDFDEVICE device) {
            bench.device.standardRequests.clear(); // the bus has read the device descriptor, too
            bench.device.refused = test.refused;
            const NTSTATUS status = target.create(device);
            WDF_USB_DEVICE_INFORMATION information;
            WDF_USB_DEVICE_INFORMATION_INIT(&information);
            EXPECT_EQ(WdfUsbTargetDeviceRetrieveInformation(target.usb, &information), STATUS_SUCCESS);
            EXPECT_EQ((information.Traits & WDF_USB_DEVICE_TRAIT_SELF_POWERED) != 0,
                      test.refused != "get status 0 0");
            int pipes = 0;
            for (UCHAR i : {1, 2}) {
                pipes += WdfUsbInterfaceGetNumConfiguredPipes(WdfUsbTargetDeviceGetInterface(target.usb, i));
            }
            EXPECT_EQ(pipes, test.pipes);
            return status;
        };
        bench.run([&] {
            const NTSTATUS status = bench.machine().startStatus(bench.plug());
            EXPECT_EQ(NT_SUCCESS(status), test.pipes == 2);
        });
        EXPECT_EQ(bench.device.standardRequests,
                  Requests(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(test.sent)));
    }
}

// On a device whose bulk pipe is halted. What the interface has already is not selected again, in any form.
TEST_F(FrameworkIo, ASettingIsSelectedOnlyWhenItIsAnother) {
    const auto select = [&](WdfUsbTargetDeviceSelectSettingType type, UCHAR setting) {
        USB_INTERFACE_DESCRIPTOR descriptor = {};
        descriptor.bInterfaceNumber = 1;
        descriptor.bAlternateSetting = setting;
        URB urb = {};
        urb.UrbHeader.Length = sizeof(_URB_SELECT_INTERFACE);
        urb.UrbHeader.Function = URB_FUNCTION_SELECT_INTERFACE;
        urb.UrbSelectInterface.Interface.AlternateSetting = setting;
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS params;
        WDF_USB_INTERFACE_SELECT_SETTING_PARAMS_INIT_SETTING(&params, setting);
        params.Type = type;
        if (type == WdfUsbInterfaceSelectSettingTypeDescriptor) {
            params.Types.Descriptor.InterfaceDescriptor = &descriptor;
        } else if (type == WdfUsbInterfaceSelectSettingTypeUrb) {
            params.Types.Urb.Urb = &urb;
        }
        return WdfUsbInterfaceSelectSetting(WdfUsbTargetDeviceGetInterface(target.usb, 1), nullptr, &params);
    };
    constexpr auto kIndex = WdfUsbInterfaceSelectSettingTypeSetting;
    constexpr auto kDescriptor = WdfUsbInterfaceSelectSettingTypeDescriptor;
    constexpr auto kUrb = WdfUsbInterfaceSelectSettingTypeUrb;
    constexpr USBD_STATUS kHalted = USBD_STATUS_ENDPOINT_HALTED;
    const struct {
        WdfUsbTargetDeviceSelectSettingType type;
        UCHAR setting;
        NTSTATUS status;
        Requests sent;
        bool samePipe;
        std::optional<USBD_STATUS> transfer; // the next one on the pipe, if there is one
        const char* refused = "";
    } cases[] = {
        {kIndex, 0, STATUS_SUCCESS, {}, true, kHalted},
        {kDescriptor, 0, STATUS_SUCCESS, {}, true, kHalted},
        {kUrb, 0, STATUS_SUCCESS, {}, true, kHalted},
        {kIndex, 2, STATUS_INVALID_PARAMETER, {}, true, kHalted}, // there is none
        {kIndex, 1, STATUS_SUCCESS, {"set interface 1 1"}, false, 0},
        {kUrb, 0, STATUS_UNSUCCESSFUL, {"set interface 0 1"}, false, {}, "set interface 0 1"},
        {kDescriptor, 0, STATUS_SUCCESS, {"set interface 0 1"}, false, 0},
    };
    run([&](platform::DeviceNode&) {
        bench.device.bulk = SmallDevice::Bulk::Stall;
        EXPECT_TRUE(bulk.send(target, 100));
        settle();
        EXPECT_EQ(bulk.usb.UsbdStatus, USBD_STATUS_STALL_PID);
        bench.device.bulk = SmallDevice::Bulk::Accept;
        for (const auto& test : cases) {
            SCOPED_TRACE(&test - cases);
            bench.device.standardRequests.clear();
            bench.device.refused = test.refused;
            const WDFUSBPIPE before = target.out;
            EXPECT_EQ(select(test.type, test.setting), test.status);
            EXPECT_EQ(bench.device.standardRequests, test.sent);
            target.findPipes();
            EXPECT_EQ(target.out == before, test.samePipe);
            ASSERT_EQ(target.out != nullptr, test.transfer.has_value());
            if (test.transfer) {
                EXPECT_TRUE(bulk.send(target, 100));
                settle();
                EXPECT_EQ(bulk.usb.UsbdStatus, *test.transfer);
            }
        }
    });
}

TEST_F(FrameworkIo, ACompletionRoutineMaySendItsRequestAgain) {
    run([&](platform::DeviceNode&) {
        bulk.onCompletion = [&] {
            if (bulk.completions < 5) {
                EXPECT_TRUE(bulk.send(target, 100));
            }
        };
        EXPECT_TRUE(bulk.send(target, 100));
        bench.machine().sleep(usb::kSecond);
        EXPECT_EQ(bulk.completions, 5);
    });
}

// A device that answers at once may complete inside the send; the seeds below meet both ways.
TEST(FrameworkUsb, ACompletionMayComeInsideTheSendOrThroughADpc) {
    int inside = 0;
    int later = 0;
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        usb::HostOptions host;
        host.link.latency = 0;
        host.inlineCompletion = usb::InlineCompletion::Explored;
        FrameworkBench bench(seed, host);
        Target target;
        BulkTransfer bulk;
        bench.driver.prepare = [&](WDFDEVICE device) { return target.create(device); };
        bench.run([&] {
            auto& node = bench.plug();
            bulk.create(target);
            bench.machine().host(node).disconnect();
            EXPECT_TRUE(bulk.send(target, 0));
            bench.machine().sleep(usb::kMillisecond);
            EXPECT_EQ(bulk.completions, 1);
            (bulk.completedIrql == PASSIVE_LEVEL ? inside : later)++;
            EXPECT_EQ(bulk.usb.UsbdStatus, USBD_STATUS_DEVICE_GONE);
            bulk.destroy();
        });
    }
    EXPECT_GT(inside, 0);
    EXPECT_GT(later, 0);
}

// Another task may cancel while the send is on its way to the bus.
TEST(FrameworkUsb, ACancelMayComeBeforeTheSubmission) {
    int early = 0;
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        SCOPED_TRACE(seed);
        FrameworkBench bench(seed);
        Target target;
        BulkTransfer bulk;
        bench.device.bulk = SmallDevice::Bulk::Hold;
        bench.driver.prepare = [&](WDFDEVICE device) { return target.create(device); };
        bench.run([&] {
            bench.plug();
            bulk.create(target);
            kernel::Task& other = kernel::spawn("other", kernel::TaskKind::Host, [&] {
                while (!WdfRequestCancelSentRequest(bulk.request)) {
                    kernel::schedulingPoint(kernel::Point::Yield);
                }
                early += bench.device.held.empty();
            });
            EXPECT_TRUE(bulk.send(target, 100));
            kernel::join(other);
            bench.machine().sleep(usb::kMillisecond);
            EXPECT_EQ(bulk.completions, 1);
            bulk.destroy();
        });
    }
    EXPECT_GT(early, 0);
}

TEST_F(FrameworkIo, AStoppedTargetKeepsRequestsUntilItStartsOrTheirTimeEnds) {
    run([&](platform::DeviceNode& node) {
        WdfIoTargetStop(io(), WdfIoTargetCancelSentIo);
        EXPECT_TRUE(bulk.send(target, 100, WDF_REL_TIMEOUT_IN_SEC(2)));
        bench.machine().sleep(3 * usb::kSecond);
        EXPECT_EQ(bulk.params.IoStatus.Status, STATUS_IO_TIMEOUT);
        ULONG value = 0;
        EXPECT_EQ(control(0x40, 0x8020, value, WDF_REL_TIMEOUT_IN_SEC(2)), STATUS_IO_TIMEOUT);

        // The start takes the time-out away.
        EXPECT_TRUE(bulk.send(target, 100, WDF_REL_TIMEOUT_IN_SEC(2)));
        bench.machine().sleep(usb::kSecond);
        EXPECT_EQ(bulk.completions, 1);
        bench.device.bulk = SmallDevice::Bulk::Hold;
        EXPECT_EQ(WdfIoTargetStart(io()), STATUS_SUCCESS);
        bench.machine().sleep(100 * usb::kSecond);
        EXPECT_EQ(bulk.completions, 1);
        WdfIoTargetStop(io(), WdfIoTargetCancelSentIo);
        EXPECT_EQ(bulk.params.IoStatus.Status, STATUS_CANCELLED);

        EXPECT_TRUE(bulk.send(target, 100));
        bench.machine().surpriseRemove(node);
        EXPECT_EQ(bulk.params.IoStatus.Status, STATUS_WDF_DEVICE_REMOVED_NOT_SENT);
        EXPECT_TRUE(bench.device.sent.empty());
    });
}

// Also when it failed: the send itself worked. The completion routine comes first.
TEST_F(FrameworkIo, ASynchronousSendReturnsAfterTheCompletionRoutine) {
    run([&](platform::DeviceNode&) {
        bench.device.bulk = SmallDevice::Bulk::Stall;
        ASSERT_EQ(bulk.format(target, 100), STATUS_SUCCESS);
        WDF_REQUEST_SEND_OPTIONS options;
        WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
        EXPECT_TRUE(WdfRequestSend(bulk.request, io(), &options));
        EXPECT_EQ(bulk.completions, 1);
        EXPECT_EQ(WdfRequestGetStatus(bulk.request), STATUS_UNSUCCESSFUL);
    });
}

// Of two transfers that end on two processors, the routine of the first may run longer than the stop waits.
// The removal waits for both.
TEST(FrameworkUsb, AStopMayReturnBeforeTheCompletionRoutineOfAnEarlierTransfer) {
    int stillRunning = 0;
    for (std::uint64_t seed = 1; seed <= 40; seed++) {
        FrameworkBench bench({.seed = seed, .strategy = kernel::Strategy::Random, .processors = 2});
        Target target;
        BulkTransfer bulk[2];
        volatile LONG running = 0;
        bench.driver.prepare = [&](WDFDEVICE device) { return target.create(device); };
        bench.device.bulk = SmallDevice::Bulk::Hold;
        bench.run([&] {
            auto& node = bench.plug();
            for (BulkTransfer& transfer : bulk) {
                transfer.create(target);
                transfer.onCompletion = [&] {
                    InterlockedIncrement(&running);
                    for (unsigned i = kernel::choose(20); i > 0; i--) {
                        kernel::schedulingPoint(kernel::Point::Interlocked);
                    }
                    InterlockedDecrement(&running);
                };
                EXPECT_TRUE(transfer.send(target, 100));
            }
            WdfIoTargetStop(WdfUsbTargetDeviceGetIoTarget(target.usb), WdfIoTargetCancelSentIo);
            stillRunning += ReadAcquire(&running);
            bench.machine().surpriseRemove(node);
            EXPECT_EQ(ReadAcquire(&running), 0);
            for (BulkTransfer& transfer : bulk) {
                EXPECT_EQ(transfer.completions, 1);
                transfer.destroy();
            }
        });
    }
    EXPECT_GT(stillRunning, 0);
}

TEST_F(FrameworkIo, ARefusedSendReturnsFalseAndNeverCompletes) {
    run([&](platform::DeviceNode& node) {
        ASSERT_EQ(bulk.format(target, 100), STATUS_SUCCESS);
        kernel::armFault(1, kernel::FaultMode::Once);
        EXPECT_FALSE(WdfRequestSend(bulk.request, WdfUsbTargetDeviceGetIoTarget(target.usb), nullptr));
        EXPECT_TRUE(kernel::faultFired());
        kernel::disarmFault();
        EXPECT_EQ(WdfRequestGetStatus(bulk.request), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(bulk.send(target, 100));
        settle();
        EXPECT_EQ(bulk.completions, 1);
        bench.machine().host(node).disconnect();
    });
}

TEST(FrameworkUsb, ConfigurationDescriptorsThatContradictThemselves) {
    const struct {
        const char* name;
        std::size_t offset;
        std::uint8_t value;
        NTSTATUS status = STATUS_INVALID_PARAMETER;
    } cases[] = {
        {"total length below the header", 2, 8},
        {"total length above what comes", 2, 80},
        {"too few interfaces announced", 4, 2},
        {"too many interfaces announced", 4, 4, STATUS_SUCCESS},
        {"descriptor of length zero", 9, 0},
        {"too many endpoints announced", 22, 2},
        {"too few endpoints announced", 38, 0, STATUS_SUCCESS},
        {"descriptor beyond the end", 59, 9},
        {"settings out of order", 21, 1, STATUS_INVALID_DEVICE_REQUEST},
        {"endpoint descriptor too short", 27, 6},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        FrameworkBench broken;
        Target usbTarget;
        broken.driver.prepare = [&](WDFDEVICE device) { return usbTarget.create(device); };
        broken.device.configurationDescriptor[test.offset] = test.value;
        broken.run([&] { EXPECT_EQ(broken.machine().startStatus(broken.plug()), test.status); });
        EXPECT_EQ(usbTarget.usb != nullptr, NT_SUCCESS(test.status));
    }
}

// The continuous reader on the report pipe.
class FrameworkReader : public FrameworkIo {
  protected:
    FrameworkReader() { startAndStopReader(); }
};

TEST_F(FrameworkReader, EveryReportArrivesOnceAndOnlyWhileTheTargetRuns) {
    run([&](platform::DeviceNode&) {
        for (std::uint8_t report : {1, 0, 2}) {
            bench.device.report(report);
            settle();
        }
        EXPECT_EQ(seen, (std::vector<std::uint8_t>{1, 0, 2}));
        // A stop of the device is one of its pipes.
        WdfIoTargetStop(io(), WdfIoTargetCancelSentIo);
        EXPECT_TRUE(bench.device.reads.empty());
        bench.device.report(3);
        settle();
        EXPECT_EQ(seen.size(), 3u);
        EXPECT_EQ(WdfIoTargetStart(io()), STATUS_SUCCESS);
        settle();
        EXPECT_EQ(seen.back(), 3);
        EXPECT_EQ(bench.device.reads.size(), 1u);
    });
}

TEST_F(FrameworkReader, EverySubmissionHasZeroedMemoryOfItsOwn) {
    run([&](platform::DeviceNode&) {
        onReport = [&] { WdfObjectReference(lastReport); };
        bench.device.report(7);
        settle();
        const WDFMEMORY kept = lastReport;
        bench.device.endRead(usb::Status::Success); // a report of no bytes
        settle();
        EXPECT_EQ(seen, (std::vector<std::uint8_t>{7, 0}));
        EXPECT_NE(lastReport, kept);
        EXPECT_EQ(*static_cast<UCHAR*>(WdfMemoryGetBuffer(kept, nullptr)), 7);
        WdfObjectDereference(kept);
        WdfObjectDereference(lastReport);
    });
}

TEST(FrameworkReaders, AsManyReadsAreOutAsTheFrameworkAllows) {
    for (const auto& [wanted, out] : std::initializer_list<std::pair<UCHAR, std::size_t>>{
             {UCHAR{0}, 2}, {UCHAR{3}, 3}, {UCHAR{200}, 10}}) {
        World world;
        world.pendingReads = wanted;
        runWithReader(world, [expected = out](World& started) {
            EXPECT_EQ(started.bench.device.reads.size(), expected);
        });
    }
}

// How a read ends, and what goes out after that.
TEST(FrameworkReaders, AFailedReadIsRecoveredAndACancelledOneIsNot) {
    static NTSTATUS failure; // what the driver is told
    static BOOLEAN goesOn;
    const Requests reset = {"clear halt 0 83"};
    const auto withoutMemory = std::nullopt;
    const struct {
        std::optional<usb::Status> end;
        UCHAR reads;
        Requests sent;
        std::size_t readsAfter;
        NTSTATUS failure;
        BOOLEAN goesOn = TRUE;
        std::string refused = "";
    } cases[] = {
        {usb::Status::Cancelled, 2, {}, 1, 0},
        {usb::Status::Stalled, 2, reset, 2, STATUS_UNSUCCESSFUL},
        {usb::Status::Error, 2, reset, 2, STATUS_UNSUCCESSFUL, TRUE, reset[0]},
        {usb::Status::Error, 2, {}, 0, STATUS_UNSUCCESSFUL, FALSE},
        {usb::Status::Gone, 2, {}, 0, STATUS_NO_SUCH_DEVICE},
        {withoutMemory, 2, {}, 1, 0},
        {withoutMemory, 1, reset, 1, STATUS_INSUFFICIENT_RESOURCES},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(&test - cases);
        World world;
        SmallDevice& device = world.bench.device;
        world.pendingReads = test.reads;
        runWithReader(world, [&](World&) {
            failure = 0;
            goesOn = test.goesOn;
            World::readersFailed = [](WDFUSBPIPE, NTSTATUS status, USBD_STATUS) {
                failure = status;
                return goesOn;
            };
            device.refused = test.refused;
            device.standardRequests.clear();
            kernel::armFault(test.end ? 0 : 1, kernel::FaultMode::Once);
            device.endRead(test.end.value_or(usb::Status::Success));
            world.settle();
            kernel::disarmFault();
            EXPECT_EQ(device.standardRequests, test.sent);
            EXPECT_EQ(device.reads.size(), test.readsAfter);
            EXPECT_EQ(failure, test.failure);
            WdfIoTargetStop(world.reportsIo(),
                            WdfIoTargetLeaveSentIoPending); // cancels the reads all the same
            EXPECT_TRUE(device.reads.empty());
            EXPECT_EQ(WdfIoTargetStart(world.reportsIo()), STATUS_SUCCESS);
            EXPECT_EQ(WdfIoTargetStart(world.reportsIo()), STATUS_SUCCESS); // sends nothing more
            EXPECT_EQ(device.reads.size(), test.reads);
        });
    }
}

// The whole traffic at once on real threads: bulk transfers that send themselves again, register accesses,
// reports that queue work items, sleep and wake between, and the cable pulled at the end.
class FrameworkFree : public testing::Test {
  protected:
    static void readComplete(WDFUSBPIPE, WDFMEMORY, size_t, WDFCONTEXT context) {
        auto& self = *static_cast<FrameworkFree*>(context);
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, [](WDFWORKITEM item) { WdfObjectDelete(item); });
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.ParentObject = self.bench.driver.device;
        WDFWORKITEM item = nullptr;
        if (NT_SUCCESS(WdfWorkItemCreate(&config, &attributes, &item))) {
            WdfWorkItemEnqueue(item);
        }
        InterlockedIncrement(&self.reports);
    }

    FrameworkBench bench{1, {}, kernel::Mode::Free};
    Target target;
    BulkTransfer bulk[2];
    KEVENT ended[2];
    volatile LONG streaming = 1;
    volatile LONG reports = 0;
};

TEST_F(FrameworkFree, TrafficSleepAndRemovalOnRealThreads) {
    bench.driver.prepare = [this](WDFDEVICE device) {
        NTSTATUS status = target.create(device);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        WDF_USB_CONTINUOUS_READER_CONFIG config;
        WDF_USB_CONTINUOUS_READER_CONFIG_INIT(&config, readComplete, this, 1);
        WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(target.reports);
        status = WdfUsbTargetPipeConfigContinuousReader(target.reports, &config);
        return NT_SUCCESS(status) ? WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(target.reports)) : status;
    };
    bench.driver.selfManagedIoSuspend = [this](WDFDEVICE) {
        WdfIoTargetStop(WdfUsbTargetPipeGetIoTarget(target.reports), WdfIoTargetCancelSentIo);
    };
    bench.driver.selfManagedIoRestart = [this](WDFDEVICE) {
        return WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(target.reports));
    };
    bench.run([&] {
        auto& machine = bench.machine();
        auto& node = bench.plug();
        ASSERT_EQ(machine.startStatus(node), STATUS_SUCCESS);
        for (std::size_t i = 0; i < std::size(bulk); i++) {
            BulkTransfer& transfer = bulk[i];
            KeInitializeEvent(&ended[i], NotificationEvent, FALSE);
            transfer.create(target);
            transfer.onCompletion = [this, &transfer, end = &ended[i]] {
                if (ReadAcquire(&streaming) != 0) {
                    EXPECT_TRUE(transfer.send(target, 512, WDF_REL_TIMEOUT_IN_SEC(2)));
                } else {
                    KeSetEvent(end, IO_NO_INCREMENT, FALSE);
                }
            };
            EXPECT_TRUE(transfer.send(target, 512, WDF_REL_TIMEOUT_IN_SEC(2)));
        }
        for (int round = 0; round < 20; round++) {
            WDF_USB_CONTROL_SETUP_PACKET setup;
            WDF_USB_CONTROL_SETUP_PACKET_INIT_VENDOR(&setup, BmRequestDeviceToHost, BmRequestToDevice, 0x40,
                                                     0, 0);
            ULONG value = 0;
            WDF_MEMORY_DESCRIPTOR memory;
            WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&memory, &value, sizeof(value));
            EXPECT_EQ(WdfUsbTargetDeviceSendControlTransferSynchronously(target.usb, nullptr, nullptr, &setup,
                                                                         &memory, nullptr),
                      STATUS_SUCCESS);
            bench.device.report(1);
            machine.sleep(usb::kMillisecond);
            if (round % 5 == 4) {
                machine.suspend(node);
                machine.resume(node);
            }
        }
        InterlockedExchange(&streaming, 0);
        // A transfer that is sent when the target has already stopped would wait there and never complete.
        for (KEVENT& end : ended) {
            EXPECT_EQ(KeWaitForSingleObject(&end, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        }
        WdfIoTargetStop(WdfUsbTargetDeviceGetIoTarget(target.usb), WdfIoTargetWaitForSentIoToComplete);
        EXPECT_EQ(ReadAcquire(&reports), 20);
        for (BulkTransfer& transfer : bulk) {
            EXPECT_GT(transfer.completions, 1);
            transfer.destroy();
        }
        machine.surpriseRemove(node);
    });
}

} // namespace
