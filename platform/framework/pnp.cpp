// The PnP and power state machine. The order of callbacks is the framework's:
//
//   start          EvtDevicePrepareHardware, EvtDeviceD0Entry (from D3Final), then up
//   up             EvtDeviceD0EntryPostInterruptsEnabled, power-managed queues resumed,
//                  EvtDeviceSelfManagedIoInit the first time and EvtDeviceSelfManagedIoRestart later
//   down           EvtDeviceSelfManagedIoSuspend, power-managed queues held,
//                  EvtDeviceD0ExitPreInterruptsDisabled, EvtDeviceD0Exit
//   sleep, wake    down to D3; EvtDeviceD0Entry from D3, up
//   stop           EvtDeviceQueryStop, down to D3Final, EvtDeviceReleaseHardware; a restart is a start
//   take-down      down to D3Final, EvtDeviceReleaseHardware, power-managed queues purged,
//                  EvtDeviceSelfManagedIoFlush
//   surprise       EvtDeviceSurpriseRemoval, take-down
//   failure        of a start, of a step into or out of D0, or of a release: take-down
//   remove         preprocess callback, take-down if there was none, other queues purged,
//                  EvtDeviceSelfManagedIoCleanup, the object tree. All of it, to the end of the device, runs
//                  inside WdfDeviceWdmDispatchPreprocessedIrp.
//
// These steps come one after the other, with one exception: EvtDeviceSurpriseRemoval is called while a sleep
// or a wake is under way, as the framework does it, and the rest of the removal follows that step.
//
// A device that is not in D0 is not brought down again. EvtDeviceSelfManagedIoSuspend is called only after
// self-managed I/O has started. EvtDeviceReleaseHardware follows a failed EvtDevicePrepareHardware, too; a
// failed EvtDeviceD0Entry is followed by it without EvtDeviceD0Exit. I/O targets have no part in this: they
// work until the object tree goes.
#include "platform/framework/pnp.h"

#include "platform/framework/device.h"
#include "platform/framework/driver.h"
#include "platform/framework/file_object.h"
#include "platform/framework/packet_queue.h"
#include "platform/framework/usb_device.h"
#include "platform/kernel/interfaces.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

struct DevNode::State {
    State(usb::Host& host, std::u16string instance) : host(host), instance(std::move(instance)) {}

    usb::Host& host;
    std::u16string instance;
    DEVICE_OBJECT pdo = {};

    // Guarded by the kernel lock.
    Ref<Device> device;
    bool stepUnderWay = false;
    bool powerStepUnderWay = false; // that step is a sleep or a wake
    std::vector<std::unique_ptr<FILE_OBJECT>> files;

    // Written by the steps, which exclude each other.
    bool prepared = false;      // EvtDevicePrepareHardware was called, EvtDeviceReleaseHardware not yet
    bool selfManagedIo = false; // EvtDeviceSelfManagedIoInit was called once
    bool flushed = false;       // EvtDeviceSelfManagedIoFlush was called, or there was nothing to flush
    bool ioRunning = false;     // self-managed I/O has started and is not suspended
    bool inD0 = false;
};

namespace {

// One step of a device at a time.
class Step {
  public:
    enum class Kind : std::uint8_t { Pnp, Power };

    Step(DevNode::State& node, const char* name, Kind kind = Kind::Pnp) : node_(node) {
        kernel::waitUntil(&node_, {name, &node_, nullptr}, kernel::kForever, [this, kind] {
            KernelGuard guard;
            if (!taken_ && !node_.stepUnderWay) {
                node_.stepUnderWay = taken_ = true;
                node_.powerStepUnderWay = kind == Kind::Power;
            }
            return taken_;
        });
    }
    ~Step() {
        {
            KernelGuard guard;
            node_.stepUnderWay = node_.powerStepUnderWay = false;
        }
        kernel::wakeChannel(&node_);
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

  private:
    DevNode::State& node_;
    const kernel::SystemWork systemWork_;
    bool taken_ = false;
};

} // namespace

DevNode::DevNode(usb::Host& host, std::u16string instance) : state_(new State(host, std::move(instance))) {
    state_->pdo.Type = 3; // IO_TYPE_DEVICE
    state_->pdo.Size = sizeof(DEVICE_OBJECT);
    state_->pdo.StackSize = 1;
    state_->pdo.DeviceType = FILE_DEVICE_UNKNOWN;
    kernel::addInterfaceDevice(&state_->pdo, state_->instance);
}

DevNode::~DevNode() = default;

PDEVICE_OBJECT DevNode::pdo() {
    return &state_->pdo;
}

namespace {

Ref<Device> deviceOfNode(const DevNode::State& node) {
    KernelGuard guard;
    Device* device = node.device.get();
    if (device == nullptr) {
        return {};
    }
    return node.device->deletingLocked() ? Ref<Device>() : Device::referenceLocked(device);
}

Ref<Device> takeDevice(DevNode::State& node) {
    Ref<Device> device;
    KernelGuard guard;
    std::swap(device, node.device);
    return device;
}

bool powerStepUnderWay(const DevNode::State& node) {
    KernelGuard guard;
    return node.powerStepUnderWay;
}

// Sends a PnP packet through the driver's preprocess callback, if it has one for it. `step` is what the
// framework does with the packet.
NTSTATUS passPacket(Device& device, UCHAR minorFunction, std::function<NTSTATUS()> step = {}) {
    Irp packet(IRP_MJ_PNP, minorFunction);
    packet.setStep(std::move(step));
    return device.send(packet);
}

// Calls a PnP callback of the driver that there may be none of.
template <typename Function, typename... Arguments>
NTSTATUS callIfSet(const char* name, Function* function, const Device& device, Arguments... arguments) {
    if (function == nullptr) {
        return STATUS_SUCCESS;
    }
    return callDriver(name, function, device.wdf(), arguments...);
}

// The same for a callback that must carry out or refuse what it is called for.
template <typename Function, typename... Arguments>
NTSTATUS callForAnswer(const char* name, Function* function, const Device& device, Arguments... arguments) {
    const NTSTATUS status = callIfSet(name, function, device, arguments...);
    if (status == STATUS_NOT_SUPPORTED) {
        verifier::fail(Rule::PnpStatus, name, device.name(), "The callback returned STATUS_NOT_SUPPORTED.");
    }
    return status;
}

// The framework stops no continuous reader by itself. Other requests may be out: a driver's work that races
// with the sleep is legal, and the requests end with their time-outs.
void requireReadersStopped(const Device& device, std::string_view callback) {
    for (const Ref<UsbDevice>& target : device.childrenOf<UsbDevice>(Kind::UsbDevice)) {
        target->requireReadersStopped(callback);
    }
}

NTSTATUS releaseHardware(DevNode::State& node, Device& device) {
    if (!std::exchange(node.prepared, false)) {
        return STATUS_SUCCESS;
    }
    return callForAnswer("EvtDeviceReleaseHardware", device.callbacks().EvtDeviceReleaseHardware, device,
                         WDFCMRESLIST{});
}

// Out of D0. A callback that fails does not keep the device up; its status is returned at the end.
NTSTATUS powerDown(DevNode::State& node, Device& device, WDF_POWER_DEVICE_STATE target) {
    NTSTATUS result = STATUS_SUCCESS;
    const auto note = [&result](NTSTATUS status) {
        if (NT_SUCCESS(result)) {
            result = status;
        }
    };
    if (!std::exchange(node.inD0, false)) {
        return result;
    }
    const auto& callbacks = device.callbacks();
    if (std::exchange(node.ioRunning, false)) {
        note(callIfSet("EvtDeviceSelfManagedIoSuspend", callbacks.EvtDeviceSelfManagedIoSuspend, device));
    }
    device.holdQueues();
    note(callIfSet("EvtDeviceD0ExitPreInterruptsDisabled", callbacks.EvtDeviceD0ExitPreInterruptsDisabled,
                   device, target));
    note(callIfSet("EvtDeviceD0Exit", callbacks.EvtDeviceD0Exit, device, target));
    requireReadersStopped(device, "EvtDeviceD0Exit");
    return result;
}

NTSTATUS startSelfManagedIo(DevNode::State& node, Device& device) {
    const auto& callbacks = device.callbacks();
    const NTSTATUS status =
        std::exchange(node.selfManagedIo, true)
            ? callIfSet("EvtDeviceSelfManagedIoRestart", callbacks.EvtDeviceSelfManagedIoRestart, device)
            : callIfSet("EvtDeviceSelfManagedIoInit", callbacks.EvtDeviceSelfManagedIoInit, device);
    node.ioRunning = NT_SUCCESS(status);
    return status;
}

// Into D0. After a failure the device is out of D0 again.
NTSTATUS powerUp(DevNode::State& node, Device& device, WDF_POWER_DEVICE_STATE previous) {
    const auto& callbacks = device.callbacks();
    NTSTATUS status = callIfSet("EvtDeviceD0Entry", callbacks.EvtDeviceD0Entry, device, previous);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    node.inD0 = true;
    status = callIfSet("EvtDeviceD0EntryPostInterruptsEnabled",
                       callbacks.EvtDeviceD0EntryPostInterruptsEnabled, device, previous);
    if (NT_SUCCESS(status)) {
        device.resumeQueues();
        status = startSelfManagedIo(node, device);
    }
    if (!NT_SUCCESS(status)) {
        (void)powerDown(node, device, WdfPowerDeviceD3Final);
    }
    return status;
}

// The device is not used any more: releases the hardware and cancels the requests that wait for power.
void takeDown(DevNode::State& node, Device& device) {
    (void)powerDown(node, device, WdfPowerDeviceD3Final);
    (void)releaseHardware(node, device);
    requireReadersStopped(device, "EvtDeviceReleaseHardware");
    for (const Ref<PacketQueue>& queue : device.queues()) {
        if (queue->powerManaged()) {
            queue->purge();
        }
    }
    if (!std::exchange(node.flushed, true) && node.selfManagedIo &&
        device.callbacks().EvtDeviceSelfManagedIoFlush != nullptr) {
        callDriver("EvtDeviceSelfManagedIoFlush", device.callbacks().EvtDeviceSelfManagedIoFlush,
                   device.wdf());
    }
}

// A device that failed stays failed until it is removed.
void fail(DevNode::State& node, Device& device) {
    device.setPnpState(PnpState::Failed);
    takeDown(node, device);
}

void cleanUp(DevNode::State& node, Device& device) {
    for (const Ref<PacketQueue>& queue : device.queues()) {
        queue->purge();
    }
    device.setPnpState(PnpState::Removed);
    if (node.selfManagedIo && device.callbacks().EvtDeviceSelfManagedIoCleanup != nullptr) {
        callDriver("EvtDeviceSelfManagedIoCleanup", device.callbacks().EvtDeviceSelfManagedIoCleanup,
                   device.wdf());
    }
}

} // namespace

bool DevNode::hasDevice() const {
    return static_cast<bool>(deviceOfNode(*state_));
}

bool DevNode::started() const {
    const Ref<Device> device = deviceOfNode(*state_);
    return device && device->pnpState() == PnpState::Started;
}

NTSTATUS DevNode::add() {
    Step step(*state_, "add device");
    Driver* driver = currentDriver();
    if (driver == nullptr || driver->config.EvtDriverDeviceAdd == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }
    WDFDEVICE_INIT init;
    init.bus = {&state_->pdo, &state_->host};
    const NTSTATUS status = callDriver("EvtDriverDeviceAdd", driver->config.EvtDriverDeviceAdd,
                                       static_cast<WDFDRIVER>(driver->handle()), &init);
    // A driver may decline the device with success: the device then works without the driver.
    if (!init.device) {
        return status;
    }
    if (!NT_SUCCESS(status)) {
        init.device->remove();
        return status;
    }
    KernelGuard guard;
    std::swap(state_->device, init.device);
    return status;
}

NTSTATUS DevNode::start() {
    Step step(*state_, "start device");
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device) {
        return STATUS_SUCCESS;
    }
    if (device->pnpState() != PnpState::Added && device->pnpState() != PnpState::Stopped) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    passPacket(*device, IRP_MN_START_DEVICE);
    state_->prepared = true;
    device->setPnpState(PnpState::Preparing);
    NTSTATUS status = callForAnswer("EvtDevicePrepareHardware", device->callbacks().EvtDevicePrepareHardware,
                                    *device, WDFCMRESLIST{}, WDFCMRESLIST{});
    if (NT_SUCCESS(status)) {
        device->setPnpState(PnpState::Prepared);
        status = powerUp(*state_, *device, WdfPowerDeviceD3Final);
    }
    if (!NT_SUCCESS(status)) {
        fail(*state_, *device);
        return status;
    }
    device->setPnpState(PnpState::Started);
    return status;
}

NTSTATUS DevNode::stop() {
    Step step(*state_, "stop device");
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    passPacket(*device, IRP_MN_QUERY_STOP_DEVICE);
    const NTSTATUS answer =
        callForAnswer("EvtDeviceQueryStop", device->callbacks().EvtDeviceQueryStop, *device);
    if (!NT_SUCCESS(answer)) {
        passPacket(*device, IRP_MN_CANCEL_STOP_DEVICE);
        return answer;
    }
    passPacket(*device, IRP_MN_STOP_DEVICE);
    // A stopped device loses its resources, so this D0 exit is as final as that of a removal.
    const NTSTATUS down = powerDown(*state_, *device, WdfPowerDeviceD3Final);
    const NTSTATUS released = releaseHardware(*state_, *device);
    if (!NT_SUCCESS(down) || !NT_SUCCESS(released)) {
        fail(*state_, *device);
    } else {
        device->setPnpState(PnpState::Stopped);
    }
    return STATUS_SUCCESS;
}

void DevNode::sleep() {
    Step step(*state_, "sleep", Step::Kind::Power);
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started || !state_->inD0) {
        return;
    }
    const NTSTATUS status = powerDown(*state_, *device, WdfPowerDeviceD3);
    if (!NT_SUCCESS(status)) {
        fail(*state_, *device);
        return;
    }
    state_->host.suspend();
}

NTSTATUS DevNode::wake() {
    Step step(*state_, "wake", Step::Kind::Power);
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started || state_->inD0) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    state_->host.resume();
    const NTSTATUS status = powerUp(*state_, *device, WdfPowerDeviceD3);
    if (!NT_SUCCESS(status)) {
        fail(*state_, *device);
    }
    return status;
}

NTSTATUS DevNode::queryRemove() {
    Step step(*state_, "query remove");
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device) {
        return STATUS_SUCCESS;
    }
    return passPacket(*device, IRP_MN_QUERY_REMOVE_DEVICE, [&device] {
        return callForAnswer("EvtDeviceQueryRemove", device->callbacks().EvtDeviceQueryRemove, *device);
    });
}

void DevNode::cancelRemove() {
    Step step(*state_, "cancel remove");
    if (const Ref<Device> device = deviceOfNode(*state_)) {
        passPacket(*device, IRP_MN_CANCEL_REMOVE_DEVICE);
    }
}

void DevNode::surpriseRemove() {
    const kernel::SystemWork systemWork;
    std::optional<Step> step;
    if (!powerStepUnderWay(*state_)) {
        step.emplace(*state_, "surprise removal");
    }
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() == PnpState::SurpriseRemoved) {
        return;
    }
    passPacket(*device, IRP_MN_SURPRISE_REMOVAL);
    device->setPnpState(PnpState::SurpriseRemoved);
    if (device->callbacks().EvtDeviceSurpriseRemoval != nullptr) {
        callDriver("EvtDeviceSurpriseRemoval", device->callbacks().EvtDeviceSurpriseRemoval, device->wdf());
    }
    if (!step) {
        step.emplace(*state_, "surprise removal");
        device->setPnpState(PnpState::SurpriseRemoved); // a step that failed has left its own state
    }
    takeDown(*state_, *device);
}

void DevNode::remove() {
    Step step(*state_, "remove device");
    if (Ref<Device> device = deviceOfNode(*state_)) {
        passPacket(*device, IRP_MN_REMOVE_DEVICE, [&] {
            takeDown(*state_, *device);
            cleanUp(*state_, *device);
            device->remove(Fate::RemovedWithDevice);
            // The last references.
            device = {};
            const Ref<Device> ofNode = takeDevice(*state_);
            return STATUS_SUCCESS;
        });
        releaseRemovedContexts();
    }
    kernel::removeInterfaceDevice(&state_->pdo);
}

// Files.

namespace {

FileObject* fileObjectOf(PFILE_OBJECT file) {
    return static_cast<FileObject*>(file->FsContext2);
}

} // namespace

NTSTATUS DevNode::open(PFILE_OBJECT& file) {
    file = nullptr;
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started) {
        return STATUS_NO_SUCH_DEVICE;
    }
    auto object = std::make_unique<FILE_OBJECT>();
    *object = {};
    object->Type = 5; // IO_TYPE_FILE
    object->Size = sizeof(FILE_OBJECT);
    object->DeviceObject = device->deviceObject();
    PFILE_OBJECT opened = object.get();
    {
        // Counted before the driver sees it, so that a removal waits for an open under way.
        KernelGuard guard;
        state_->files.push_back(std::move(object));
    }
    Irp irp(IRP_MJ_CREATE, 0);
    irp.top().FileObject = opened;
    const NTSTATUS status = device->send(irp);
    if (!NT_SUCCESS(status)) {
        if (FileObject* unused = fileObjectOf(opened)) {
            unused->remove();
        }
        forget(opened);
        return status;
    }
    file = opened;
    return status;
}

NTSTATUS DevNode::internalControl(PFILE_OBJECT file, ULONG code, const void* input, ULONG inputLength,
                                  void* output, ULONG outputLength, ULONG_PTR& information) {
    information = 0;
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device) {
        return STATUS_NO_SUCH_DEVICE;
    }
    Irp irp(IRP_MJ_INTERNAL_DEVICE_CONTROL, 0);
    irp.top().FileObject = file;
    auto& control = irp.top().Parameters.DeviceIoControl;
    control.IoControlCode = code;
    control.InputBufferLength = inputLength;
    control.OutputBufferLength = outputLength;
    control.Type3InputBuffer = const_cast<void*>(input);
    irp.irp().UserBuffer = output;
    const NTSTATUS status = device->send(irp);
    information = irp.information();
    return status;
}

void DevNode::close(PFILE_OBJECT file) {
    const Ref<Device> device = deviceOfNode(*state_);
    if (device) {
        for (const UCHAR major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
            Irp irp(major, 0);
            irp.top().FileObject = file;
            device->send(irp);
        }
    }
    forget(file);
}

void DevNode::forget(PFILE_OBJECT file) {
    {
        KernelGuard guard;
        std::erase_if(state_->files, [file](const auto& object) { return object.get() == file; });
    }
    kernel::wakeChannel(&state_->files);
}

void DevNode::waitForHandles() {
    kernel::waitUntil(&state_->files, {"wait for open handles", this, nullptr}, kernel::kForever, [this] {
        KernelGuard guard;
        return state_->files.empty();
    });
}

} // namespace framework
