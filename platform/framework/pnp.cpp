// The PnP and power state machine. The order of callbacks is the framework's:
//
//   start          EvtDevicePrepareHardware, EvtDeviceD0Entry (from D3Final), then up
//   up             EvtDeviceD0EntryPostInterruptsEnabled, EvtDeviceSelfManagedIoInit the first time and
//                  EvtDeviceSelfManagedIoRestart later, power-managed queues started
//   down           EvtDeviceSelfManagedIoSuspend, power-managed queues stopped,
//                  EvtDeviceD0ExitPreInterruptsDisabled, EvtDeviceD0Exit
//   sleep, wake    down to D3; EvtDeviceD0Entry from D3, up
//   stop           EvtDeviceQueryStop, down to D3Final, EvtDeviceReleaseHardware; a restart is a start
//   remove         preprocess callback, down to D3Final, EvtDeviceReleaseHardware,
//                  EvtDeviceSelfManagedIoFlush, EvtDeviceSelfManagedIoCleanup, the object tree
//   surprise       EvtDeviceSurpriseRemoval, down to D3Final, EvtDeviceReleaseHardware; the rest at the
//   remove
//
// These steps come one after the other, with one exception: EvtDeviceSurpriseRemoval is called while a sleep
// or a wake is under way, as the framework does it, and the rest of the removal follows that step.
//
// A device that is not in D0 is not brought down again. EvtDeviceReleaseHardware follows a failed
// EvtDevicePrepareHardware, too; a failed EvtDeviceD0Entry is followed by it without EvtDeviceD0Exit.
#include "platform/framework/pnp.h"

#include "platform/framework/device.h"
#include "platform/framework/driver.h"
#include "platform/framework/file_object.h"
#include "platform/framework/queue.h"
#include "platform/framework/usb_device.h"
#include "platform/kernel/interfaces.h"

#include <algorithm>
#include <optional>

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
    bool prepared = false; // EvtDevicePrepareHardware was called, EvtDeviceReleaseHardware not yet
    bool everStarted = false;
    bool selfManagedIo = false; // initialized once
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

bool powerStepUnderWay(const DevNode::State& node) {
    KernelGuard guard;
    return node.powerStepUnderWay;
}

// Sends a PnP packet through the driver's preprocess callback, if it has one for it.
NTSTATUS passPacket(Device& device, UCHAR minorFunction) {
    Irp packet(IRP_MJ_PNP, minorFunction);
    return device.send(packet);
}

std::vector<Ref<Queue>> queuesOf(const Device& device) {
    return device.childrenOf<Queue>(Kind::Queue);
}

// The framework stops no continuous reader by itself. Other requests may be out: a driver's work that races
// with the sleep is legal, and the requests end with their time-outs.
void requireReadersStopped(const Device& device) {
    for (const Ref<UsbDevice>& target : device.childrenOf<UsbDevice>(Kind::UsbDevice)) {
        target->requireReadersStopped();
    }
}

void shutDownTargets(const Device& device) {
    for (const Ref<UsbDevice>& target : device.childrenOf<UsbDevice>(Kind::UsbDevice)) {
        target->shutDownAll();
    }
}

void releaseHardware(DevNode::State& node, Device& device) {
    if (!std::exchange(node.prepared, false)) {
        return;
    }
    if (device.callbacks().EvtDeviceReleaseHardware != nullptr) {
        callDriver("EvtDeviceReleaseHardware", device.callbacks().EvtDeviceReleaseHardware, device.wdf(),
                   WDFCMRESLIST{});
    }
}

// Out of D0. The status of D0 exit does not keep the device up.
void powerDown(DevNode::State& node, Device& device, WDF_POWER_DEVICE_STATE target) {
    if (!node.inD0) {
        return;
    }
    const auto& callbacks = device.callbacks();
    if (node.selfManagedIo && callbacks.EvtDeviceSelfManagedIoSuspend != nullptr) {
        callDriver("EvtDeviceSelfManagedIoSuspend", callbacks.EvtDeviceSelfManagedIoSuspend, device.wdf());
    }
    for (const Ref<Queue>& queue : queuesOf(device)) {
        queue->stop();
    }
    node.inD0 = false;
    if (callbacks.EvtDeviceD0ExitPreInterruptsDisabled != nullptr) {
        callDriver("EvtDeviceD0ExitPreInterruptsDisabled", callbacks.EvtDeviceD0ExitPreInterruptsDisabled,
                   device.wdf(), target);
    }
    if (callbacks.EvtDeviceD0Exit != nullptr) {
        callDriver("EvtDeviceD0Exit", callbacks.EvtDeviceD0Exit, device.wdf(), target);
    }
}

NTSTATUS startSelfManagedIo(DevNode::State& node, Device& device) {
    const auto& callbacks = device.callbacks();
    if (!std::exchange(node.selfManagedIo, true)) {
        return callbacks.EvtDeviceSelfManagedIoInit == nullptr
                   ? STATUS_SUCCESS
                   : callDriver("EvtDeviceSelfManagedIoInit", callbacks.EvtDeviceSelfManagedIoInit,
                                device.wdf());
    }
    return callbacks.EvtDeviceSelfManagedIoRestart == nullptr
               ? STATUS_SUCCESS
               : callDriver("EvtDeviceSelfManagedIoRestart", callbacks.EvtDeviceSelfManagedIoRestart,
                            device.wdf());
}

// Into D0. After a failure the device is out of D0 again.
NTSTATUS powerUp(DevNode::State& node, Device& device, WDF_POWER_DEVICE_STATE previous) {
    const auto& callbacks = device.callbacks();
    NTSTATUS status = STATUS_SUCCESS;
    if (callbacks.EvtDeviceD0Entry != nullptr) {
        status = callDriver("EvtDeviceD0Entry", callbacks.EvtDeviceD0Entry, device.wdf(), previous);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    node.inD0 = true;
    if (callbacks.EvtDeviceD0EntryPostInterruptsEnabled != nullptr) {
        status = callDriver("EvtDeviceD0EntryPostInterruptsEnabled",
                            callbacks.EvtDeviceD0EntryPostInterruptsEnabled, device.wdf(), previous);
    }
    if (NT_SUCCESS(status)) {
        status = startSelfManagedIo(node, device);
    }
    if (!NT_SUCCESS(status)) {
        powerDown(node, device, WdfPowerDeviceD3Final);
        return status;
    }
    for (const Ref<Queue>& queue : queuesOf(device)) {
        queue->start();
    }
    return STATUS_SUCCESS;
}

// The device is not used any more: cancels the requests that wait and releases the hardware.
void takeDown(DevNode::State& node, Device& device) {
    powerDown(node, device, WdfPowerDeviceD3Final);
    for (const Ref<Queue>& queue : queuesOf(device)) {
        queue->purge();
    }
    releaseHardware(node, device);
    shutDownTargets(device);
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
    if (!init.device) {
        return NT_SUCCESS(status) ? STATUS_NO_SUCH_DEVICE : status;
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
    if (!device || (device->pnpState() != PnpState::Added && device->pnpState() != PnpState::Stopped)) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    passPacket(*device, IRP_MN_START_DEVICE);
    state_->prepared = true;
    NTSTATUS status = STATUS_SUCCESS;
    if (device->callbacks().EvtDevicePrepareHardware != nullptr) {
        device->setPnpState(PnpState::Preparing);
        status = callDriver("EvtDevicePrepareHardware", device->callbacks().EvtDevicePrepareHardware,
                            device->wdf(), WDFCMRESLIST{}, WDFCMRESLIST{});
    }
    if (NT_SUCCESS(status)) {
        device->setPnpState(PnpState::Prepared);
        status = powerUp(*state_, *device, WdfPowerDeviceD3Final);
    }
    if (!NT_SUCCESS(status)) {
        device->setPnpState(PnpState::Failed);
        takeDown(*state_, *device);
        return status;
    }
    device->setPnpState(PnpState::Started);
    state_->everStarted = true;
    return status;
}

NTSTATUS DevNode::stop() {
    Step step(*state_, "stop device");
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    passPacket(*device, IRP_MN_QUERY_STOP_DEVICE);
    if (device->callbacks().EvtDeviceQueryStop != nullptr) {
        const NTSTATUS status =
            callDriver("EvtDeviceQueryStop", device->callbacks().EvtDeviceQueryStop, device->wdf());
        if (!NT_SUCCESS(status)) {
            passPacket(*device, IRP_MN_CANCEL_STOP_DEVICE);
            return status;
        }
    }
    passPacket(*device, IRP_MN_STOP_DEVICE);
    // A stopped device loses its resources, so this D0 exit is as final as that of a removal.
    powerDown(*state_, *device, WdfPowerDeviceD3Final);
    releaseHardware(*state_, *device);
    device->setPnpState(PnpState::Stopped);
    return STATUS_SUCCESS;
}

void DevNode::sleep() {
    Step step(*state_, "sleep", Step::Kind::Power);
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device || device->pnpState() != PnpState::Started || !state_->inD0) {
        return;
    }
    powerDown(*state_, *device, WdfPowerDeviceD3);
    requireReadersStopped(*device);
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
        device->setPnpState(PnpState::Failed);
        takeDown(*state_, *device);
    }
    return status;
}

NTSTATUS DevNode::queryRemove() {
    Step step(*state_, "query remove");
    const Ref<Device> device = deviceOfNode(*state_);
    if (!device) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = passPacket(*device, IRP_MN_QUERY_REMOVE_DEVICE);
    if (NT_SUCCESS(status) && device->callbacks().EvtDeviceQueryRemove != nullptr) {
        status = callDriver("EvtDeviceQueryRemove", device->callbacks().EvtDeviceQueryRemove, device->wdf());
    }
    return status;
}

void DevNode::cancelRemove() {
    Step step(*state_, "cancel remove");
    if (const Ref<Device> device = deviceOfNode(*state_)) {
        passPacket(*device, IRP_MN_CANCEL_REMOVE_DEVICE);
    }
}

void DevNode::surpriseRemove() {
    std::optional<Step> step;
    if (!powerStepUnderWay(*state_)) {
        step.emplace(*state_, "surprise removal");
    }
    const Ref<Device> device = deviceOfNode(*state_);
    // A device that never started is removed without further notice.
    if (!device || !state_->everStarted || device->pnpState() == PnpState::SurpriseRemoved) {
        return;
    }
    passPacket(*device, IRP_MN_SURPRISE_REMOVAL);
    device->setPnpState(PnpState::SurpriseRemoved);
    if (device->callbacks().EvtDeviceSurpriseRemoval != nullptr) {
        callDriver("EvtDeviceSurpriseRemoval", device->callbacks().EvtDeviceSurpriseRemoval, device->wdf());
    }
    if (!step) {
        step.emplace(*state_, "surprise removal");
        device->setPnpState(PnpState::SurpriseRemoved); // a wake that failed has left its own state
    }
    takeDown(*state_, *device);
}

void DevNode::remove() {
    Step step(*state_, "remove device");
    Ref<Device> device = deviceOfNode(*state_);
    if (device) {
        passPacket(*device, IRP_MN_REMOVE_DEVICE);
        takeDown(*state_, *device);
        device->setPnpState(PnpState::Removed);
        const auto& callbacks = device->callbacks();
        if (state_->selfManagedIo && callbacks.EvtDeviceSelfManagedIoFlush != nullptr) {
            callDriver("EvtDeviceSelfManagedIoFlush", callbacks.EvtDeviceSelfManagedIoFlush, device->wdf());
        }
        if (state_->selfManagedIo && callbacks.EvtDeviceSelfManagedIoCleanup != nullptr) {
            callDriver("EvtDeviceSelfManagedIoCleanup", callbacks.EvtDeviceSelfManagedIoCleanup,
                       device->wdf());
        }
        device->remove();
    }
    kernel::removeInterfaceDevice(&state_->pdo);
    Ref<Device> last;
    KernelGuard guard;
    std::swap(last, state_->device);
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
