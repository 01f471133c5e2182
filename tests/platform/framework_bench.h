// A machine with a small device in its port and a driver whose callbacks a test fills in.
#pragma once

#include "platform/machine.h"
#include "platform/usb/device.h"

#include <ntddk.h>
#include <wdf.h>
#include <wdfusb.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace platform_test {

constexpr UCHAR kOutEndpoint = 0x02;
constexpr UCHAR kReportEndpoint = 0x83;

// Three interfaces as the adapter has them: nothing, bulk OUT (with a second setting), interrupt IN. Vendor
// requests read and write four bytes at wIndex.
class SmallDevice final : public usb::Device {
  public:
    enum class Bulk { Accept, Hold, Stall };

    usb::Speed speed() const override { return usb::Speed::Super; }

    void submit(usb::Transfer& transfer) override {
        change([&](Ended& ended) {
            if (gone) {
                ended.push_back({&transfer, usb::Status::Gone, 0});
            } else if (transfer.type == usb::TransferType::Control) {
                control(transfer, ended);
            } else if (transfer.endpoint == kReportEndpoint) {
                reads.push_back(&transfer);
                sendReports(ended);
            } else if (bulk == Bulk::Hold) {
                held.push_back(&transfer);
            } else if (bulk == Bulk::Stall) {
                ended.push_back({&transfer, usb::Status::Stalled, 0});
            } else {
                sent.emplace_back(transfer.data.begin(), transfer.data.end());
                succeed(transfer, transfer.data.size(), ended);
            }
        });
    }

    void cancel(usb::Transfer& transfer) override {
        change([&](Ended& ended) {
            if (std::erase(held, &transfer) + std::erase(reads, &transfer) != 0) {
                ended.push_back({&transfer, usb::Status::Cancelled, 0});
            }
        });
    }

    void disconnect() override {
        change([&](Ended& ended) {
            gone = true;
            for (auto* list : {&held, &reads}) {
                for (usb::Transfer* transfer : std::exchange(*list, {})) {
                    ended.push_back({transfer, usb::Status::Gone, 0});
                }
            }
        });
    }

    // Sends a report to the oldest read, now or when there is one.
    void report(std::uint8_t value) {
        change([&](Ended& ended) {
            reports.push_back(value);
            sendReports(ended);
        });
    }

    // Ends the oldest read without a report.
    void endRead(usb::Status status) {
        change([&](Ended& ended) {
            ended.push_back({reads.front(), status, 0});
            reads.erase(reads.begin());
        });
    }

    static std::vector<std::uint8_t> configuration() {
        return {9, 2, 66, 0, 3, 1,    0, 0x80, 50,                                    // configuration
                9, 4, 0,  0, 0, 0xFF, 0, 0,    0,                                     // interface 0
                9, 4, 1,  0, 1, 0xFF, 0, 0,    0,  7, 5, kOutEndpoint,    2, 0, 4, 0, // interface 1
                9, 4, 2,  0, 1, 0xFF, 0, 0,    0,  7, 5, kReportEndpoint, 3, 8, 0, 4, // interface 2
                9, 4, 1,  1, 1, 0xFF, 0, 0,    0,  7, 5, kOutEndpoint,    2, 0, 4, 0};
    }

    Bulk bulk = Bulk::Accept;
    bool gone = false;
    bool deaf = false; // vendor requests stay unanswered
    std::vector<std::uint8_t> configurationDescriptor = configuration();
    std::map<std::uint16_t, std::array<std::uint8_t, 4>> registers;
    std::vector<std::vector<std::uint8_t>> sent;
    std::vector<std::string> standardRequests; // name, wValue, wIndex
    std::string refused;                       // the one of these that stalls
    std::vector<usb::Transfer*> held;
    std::vector<usb::Transfer*> reads;
    std::vector<std::uint8_t> reports;

  private:
    struct End {
        usb::Transfer* transfer;
        usb::Status status;
        std::uint32_t actual;
    };
    using Ended = std::vector<End>;

    // Changes the state under the lock and completes what ended with that after it: a completion is a
    // scheduling point and may come back with the next transfer.
    template <typename Change>
    void change(Change change) {
        Ended ended;
        {
            const std::lock_guard lock(mutex_);
            change(ended);
        }
        for (const End& end : ended) {
            end.transfer->status = end.status;
            end.transfer->actual = end.actual;
            end.transfer->complete(*end.transfer);
        }
    }

    static void succeed(usb::Transfer& transfer, std::size_t actual, Ended& ended) {
        ended.push_back({&transfer, usb::Status::Success, static_cast<std::uint32_t>(actual)});
    }

    void sendReports(Ended& ended) {
        while (!reports.empty() && !reads.empty()) {
            usb::Transfer* read = reads.front();
            reads.erase(reads.begin());
            read->data[0] = reports.front();
            reports.erase(reports.begin());
            succeed(*read, 1, ended);
        }
    }

    static void answer(usb::Transfer& transfer, const std::vector<std::uint8_t>& bytes, Ended& ended) {
        const std::size_t size = std::min(bytes.size(), transfer.data.size());
        std::copy_n(bytes.begin(), size, transfer.data.begin());
        succeed(transfer, size, ended);
    }

    void control(usb::Transfer& transfer, Ended& ended) {
        const usb::SetupPacket& setup = transfer.setup;
        if ((setup.requestType & 0x60) == 0x40) {
            return vendor(transfer, ended);
        }
        const std::map<int, const char*> names = {{0, "get status"},
                                                  {1, "clear halt"},
                                                  {6, "get descriptor"},
                                                  {9, "set configuration"},
                                                  {11, "set interface"}};
        standardRequests.push_back(
            fmt::format("{} {:x} {:x}", names.at(setup.request), setup.value, setup.index));
        if (standardRequests.back() == refused) {
            ended.push_back({&transfer, usb::Status::Stalled, 0});
        } else if (setup.request == 6 && setup.value >> 8 == 1) {
            answer(transfer, {18, 1, 0, 3, 0xFF, 0, 0, 9, 0x09, 0x12, 3, 0, 0, 2, 0, 0, 0, 1}, ended);
        } else if (setup.request == 6) {
            answer(transfer, configurationDescriptor, ended);
        } else {
            answer(transfer, {1, 0}, ended); // self-powered
        }
    }

    void vendor(usb::Transfer& transfer, Ended& ended) {
        auto& value = registers[transfer.setup.index];
        if (deaf) {
            held.push_back(&transfer);
        } else if (transfer.isIn()) {
            answer(transfer, {value.begin(), value.end()}, ended);
        } else {
            std::copy_n(transfer.data.begin(), std::min<std::size_t>(4, transfer.data.size()), value.begin());
            succeed(transfer, transfer.data.size(), ended);
        }
    }

    std::mutex mutex_; // for the free-running scheduler; tests that look at the members run under `sim`
};

// What the driver does in its callbacks, and the order in which they came.
struct DriverScript {
    std::vector<std::string> trace;
    std::function<void()> beforeEntry; // before there is a driver object
    std::function<NTSTATUS(WDFDRIVER)> entry;
    std::function<void(PWDFDEVICE_INIT)> init; // before there is a device object
    std::function<NTSTATUS(WDFDEVICE)> add;
    std::function<NTSTATUS(WDFDEVICE)> prepare;
    std::function<NTSTATUS(WDFDEVICE)> d0Entry;
    std::function<void(WDFDEVICE)> d0Exit;
    std::function<NTSTATUS(WDFDEVICE)> selfManagedIoInit;
    std::function<void(WDFDEVICE)> selfManagedIoSuspend;
    std::function<NTSTATUS(WDFDEVICE)> selfManagedIoRestart;
    std::function<void(WDFREQUEST, ULONG)> control;
    WDF_TRI_STATE powerManagedQueue = WdfUseDefault;
    std::function<NTSTATUS(WDFDEVICE, PIRP)> preprocess;
    std::map<std::string, NTSTATUS> answers; // of callbacks that do nothing else; success if there is none
    WDFDEVICE device = nullptr;

    NTSTATUS answer(const char* callback) const {
        const auto found = answers.find(callback);
        return found == answers.end() ? STATUS_SUCCESS : found->second;
    }

    void note(std::string what) {
        const std::lock_guard lock(mutex_);
        trace.push_back(std::move(what));
    }

  private:
    std::mutex mutex_;
};
inline DriverScript* script = nullptr;

namespace callbacks {

inline std::string state(const char* name, WDF_POWER_DEVICE_STATE value) {
    return std::string(name) + (value == WdfPowerDeviceD3Final ? "(D3Final)"
                                : value == WdfPowerDeviceD3    ? "(D3)"
                                                               : "(?)");
}
inline NTSTATUS prepare(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST) {
    script->note("prepare");
    return script->prepare ? script->prepare(device) : script->answer("prepare");
}
inline NTSTATUS release(WDFDEVICE, WDFCMRESLIST) {
    script->note("release");
    return script->answer("release");
}
inline NTSTATUS queryStop(WDFDEVICE) {
    return script->answer("query stop");
}
inline NTSTATUS d0Entry(WDFDEVICE device, WDF_POWER_DEVICE_STATE previous) {
    script->note(state("d0 entry", previous));
    return script->d0Entry ? script->d0Entry(device) : script->answer("d0 entry");
}
inline NTSTATUS d0Exit(WDFDEVICE device, WDF_POWER_DEVICE_STATE target) {
    script->note(state("d0 exit", target));
    if (script->d0Exit) {
        script->d0Exit(device);
    }
    return script->answer("d0 exit");
}
inline NTSTATUS init(WDFDEVICE device) {
    script->note("init");
    return script->selfManagedIoInit ? script->selfManagedIoInit(device) : script->answer("init");
}
inline NTSTATUS suspend(WDFDEVICE device) {
    script->note("suspend");
    if (script->selfManagedIoSuspend) {
        script->selfManagedIoSuspend(device);
    }
    return script->answer("suspend");
}
inline NTSTATUS restart(WDFDEVICE device) {
    script->note("restart");
    return script->selfManagedIoRestart ? script->selfManagedIoRestart(device) : script->answer("restart");
}
inline void flush(WDFDEVICE) {
    script->note("flush");
}
inline void cleanup(WDFDEVICE) {
    script->note("cleanup");
}
inline void surprise(WDFDEVICE) {
    script->note("surprise");
}
inline NTSTATUS preprocess(WDFDEVICE device, PIRP irp) {
    script->note("irp " + std::to_string(IoGetCurrentIrpStackLocation(irp)->MinorFunction));
    if (script->preprocess) {
        return script->preprocess(device, irp);
    }
    IoSkipCurrentIrpStackLocation(irp);
    return WdfDeviceWdmDispatchPreprocessedIrp(device, irp);
}
inline void fileCreate(WDFDEVICE, WDFREQUEST request, WDFFILEOBJECT) {
    script->note("create");
    WdfRequestComplete(request, STATUS_SUCCESS);
}
inline void fileCleanup(WDFFILEOBJECT) {
    script->note("file cleanup");
}
inline void fileClose(WDFFILEOBJECT) {
    script->note("file close");
}
inline void control(WDFQUEUE, WDFREQUEST request, size_t, size_t, ULONG code) {
    script->note("control");
    script->control(request, code);
}

inline NTSTATUS deviceAdd(WDFDRIVER, PWDFDEVICE_INIT init) {
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = prepare;
    pnp.EvtDeviceReleaseHardware = release;
    pnp.EvtDeviceD0Entry = d0Entry;
    pnp.EvtDeviceD0Exit = d0Exit;
    pnp.EvtDeviceSelfManagedIoInit = callbacks::init;
    pnp.EvtDeviceSelfManagedIoSuspend = suspend;
    pnp.EvtDeviceSelfManagedIoRestart = restart;
    pnp.EvtDeviceSelfManagedIoFlush = flush;
    pnp.EvtDeviceSelfManagedIoCleanup = cleanup;
    pnp.EvtDeviceSurpriseRemoval = surprise;
    pnp.EvtDeviceQueryStop = queryStop;
    WdfDeviceInitSetPnpPowerEventCallbacks(init, &pnp);
    WDF_FILEOBJECT_CONFIG file;
    WDF_FILEOBJECT_CONFIG_INIT(&file, fileCreate, fileClose, fileCleanup);
    WdfDeviceInitSetFileObjectConfig(init, &file, WDF_NO_OBJECT_ATTRIBUTES);
    WdfDeviceInitSetIoType(init, WdfDeviceIoNeither);
    UCHAR minors[] = {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE};
    NTSTATUS status = WdfDeviceInitAssignWdmIrpPreprocessCallback(init, preprocess, IRP_MJ_PNP, minors, 3);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (script->init) {
        script->init(init);
    }
    status = WdfDeviceCreate(&init, WDF_NO_OBJECT_ATTRIBUTES, &script->device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_IO_QUEUE_CONFIG queue;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queue, WdfIoQueueDispatchParallel);
    queue.EvtIoInternalDeviceControl = control;
    queue.PowerManaged = script->powerManagedQueue;
    status = WdfIoQueueCreate(script->device, &queue, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return script->add ? script->add(script->device) : STATUS_SUCCESS;
}

inline NTSTATUS driverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING path) {
    if (script->beforeEntry) {
        script->beforeEntry();
    }
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, deviceAdd);
    WDFDRIVER driver;
    const NTSTATUS status = WdfDriverCreate(driverObject, path, WDF_NO_OBJECT_ATTRIBUTES, &config, &driver);
    return NT_SUCCESS(status) && script->entry ? script->entry(driver) : status;
}

} // namespace callbacks

// The interface that clients find the device by, and the code of their requests.
constexpr GUID kClass = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr ULONG kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0, METHOD_NEITHER, FILE_ANY_ACCESS);

inline NTSTATUS enableInterface(WDFDEVICE device) {
    UNICODE_STRING link = {};
    NTSTATUS status =
        IoRegisterDeviceInterface(WdfDeviceWdmGetPhysicalDevice(device), &kClass, nullptr, &link);
    if (NT_SUCCESS(status)) {
        status = IoSetDeviceInterfaceState(&link, TRUE);
        RtlFreeUnicodeString(&link);
    }
    return status;
}

// The schedule that the environment variable SIM_SEED names; the first one otherwise.
inline std::uint64_t seedOfRun() {
    const char* text = std::getenv("SIM_SEED");
    return text != nullptr ? std::strtoull(text, nullptr, 10) : 1;
}

// One machine, one device, one driver: `body` runs with the driver loaded, which is unloaded afterwards.
class FrameworkBench {
  public:
    explicit FrameworkBench(std::uint64_t seed = seedOfRun(), const usb::HostOptions& host = {},
                            kernel::Mode mode = kernel::Mode::Sim)
        : FrameworkBench(kernel::SchedulerOptions{.mode = mode, .seed = seed}, host) {}

    explicit FrameworkBench(const kernel::SchedulerOptions& scheduler, const usb::HostOptions& host = {})
        : host_(host) {
        platform::MachineOptions options;
        options.scheduler = scheduler;
        machine_ = std::make_unique<platform::Machine>(options);
        script = &driver;
    }

    void run(const std::function<void()>& body) {
        machine_->run([&] {
            ASSERT_EQ(machine_->loadDriver(callbacks::driverEntry), STATUS_SUCCESS);
            body();
            machine_->unloadDriver();
        });
    }

    platform::Machine& machine() { return *machine_; }
    platform::DeviceNode& plug() { return machine_->plug(device, host_); }

    SmallDevice device;
    DriverScript driver;

  private:
    usb::HostOptions host_;
    std::unique_ptr<platform::Machine> machine_;
};

// A USB target with its configuration selected, as a prepare-hardware callback makes it.
struct Target {
    WDFUSBDEVICE usb = nullptr;
    WDFUSBPIPE out = nullptr;
    WDFUSBPIPE reports = nullptr;

    NTSTATUS create(WDFDEVICE device) {
        const NTSTATUS status = WdfUsbTargetDeviceCreate(device, WDF_NO_OBJECT_ATTRIBUTES, &usb);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        return selectConfig();
    }

    NTSTATUS selectConfig() {
        WDF_USB_DEVICE_SELECT_CONFIG_PARAMS params;
        WDF_USB_DEVICE_SELECT_CONFIG_PARAMS_INIT_MULTIPLE_INTERFACES(&params, 0, nullptr);
        const NTSTATUS status = WdfUsbTargetDeviceSelectConfig(usb, WDF_NO_OBJECT_ATTRIBUTES, &params);
        if (NT_SUCCESS(status)) {
            findPipes();
        }
        return status;
    }

    void findPipes() {
        out = WdfUsbInterfaceGetConfiguredPipe(WdfUsbTargetDeviceGetInterface(usb, 1), 0, nullptr);
        reports = WdfUsbInterfaceGetConfiguredPipe(WdfUsbTargetDeviceGetInterface(usb, 2), 0, nullptr);
    }
};

} // namespace platform_test
