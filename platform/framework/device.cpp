#include "platform/framework/device.h"

#include "platform/base/machine_state.h"
#include "platform/framework/driver.h"
#include "platform/framework/file_object.h"
#include "platform/framework/request.h"

#include <fmt/format.h>

#include <algorithm>

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

Device::Device(const BusDevice& bus, DeviceSettings settings)
    : Object(Kind::Device), bus_(bus), settings_(std::move(settings)) {
    WDF_DEVICE_PNP_CAPABILITIES_INIT(&capabilities);
    fdo_.Type = 3; // IO_TYPE_DEVICE
    fdo_.Size = sizeof(DEVICE_OBJECT);
    fdo_.StackSize = 2;
    fdo_.DeviceExtension = this;
    fdo_.DeviceType = FILE_DEVICE_UNKNOWN;
    if (Driver* driver = currentDriver()) {
        fdo_.DriverObject = driver->driverObject;
    }
    InitializeListHead(&fdo_.DeviceLock.Header.WaitListHead);
}

PnpState Device::pnpState() const {
    KernelGuard guard;
    return pnpState_;
}

void Device::setPnpState(PnpState state) {
    KernelGuard guard;
    pnpState_ = state;
}

bool Device::setDefaultQueue(PacketQueue& queue) {
    KernelGuard guard;
    if (defaultQueue_ != nullptr) {
        return false;
    }
    defaultQueue_ = &queue;
    return true;
}

bool Device::isDefaultQueue(const PacketQueue& queue) const {
    KernelGuard guard;
    return defaultQueue_ == &queue;
}

bool Device::queuesResumed() const {
    KernelGuard guard;
    return queuesResumed_;
}

void Device::resumeQueues() {
    {
        KernelGuard guard;
        queuesResumed_ = true;
    }
    for (const Ref<PacketQueue>& queue : queues()) {
        queue->resume();
    }
}

void Device::holdQueues() {
    {
        KernelGuard guard;
        queuesResumed_ = false;
    }
    for (const Ref<PacketQueue>& queue : queues()) {
        queue->hold();
    }
}

const PreprocessEntry* Device::preprocessorOf(const IO_STACK_LOCATION& location) const {
    for (const PreprocessEntry& entry : settings_.preprocess) {
        const bool minorMatches =
            entry.minors.empty() ||
            std::find(entry.minors.begin(), entry.minors.end(), location.MinorFunction) != entry.minors.end();
        if (entry.major == location.MajorFunction && minorMatches) {
            return &entry;
        }
    }
    return nullptr;
}

NTSTATUS Device::send(Irp& packet) {
    packet.top().DeviceObject = &fdo_;
    dispatch(packet);
    return packet.wait();
}

void Device::dispatch(Irp& packet) {
    const PreprocessEntry* entry = preprocessorOf(packet.top());
    if (entry == nullptr) {
        dispatchToFramework(&packet.irp());
        return;
    }
    const bool pnp = packet.top().MajorFunction == IRP_MJ_PNP;
    const std::string thisDevice = name();
    callDriver("EvtDeviceWdmIrpPreprocess", entry->callback, wdf(), &packet.irp());
    if (pnp && !packet.handedOn()) {
        verifier::fail(Rule::PnpOrder, "EvtDeviceWdmIrpPreprocess", thisDevice,
                       "The packet was neither passed on nor completed.");
    }
}

void Device::dispatchToFramework(PIRP irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_PNP:
        Irp::takeStep(irp);
        break;
    case IRP_MJ_CREATE:
        dispatchCreate(irp);
        break;
    case IRP_MJ_CLEANUP:
        dispatchCleanup(irp);
        break;
    case IRP_MJ_CLOSE:
        dispatchClose(irp);
        break;
    default:
        dispatchIo(irp);
        break;
    }
}

void Device::dispatchCreate(PIRP irp) {
    const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    if (!settings_.fileConfig || settings_.fileConfig->FileObjectClass == WdfFileObjectNotRequired) {
        Irp::complete(irp, STATUS_SUCCESS, 0);
        return;
    }
    auto* object = new FileObject(file);
    NTSTATUS status = adoptForPacket(
        *object, *this, settings_.fileAttributes ? &*settings_.fileAttributes : nullptr, "file object");
    if (!NT_SUCCESS(status)) {
        object->release();
        Irp::complete(irp, status, 0);
        return;
    }
    file->FsContext2 = object;
    const auto create = settings_.fileConfig->EvtDeviceFileCreate;
    if (create == nullptr) {
        Irp::complete(irp, STATUS_SUCCESS, 0);
        return;
    }
    auto* request = new Request(irp, nullptr, object);
    status = adoptForPacket(*request, *this, nullptr, "request of a packet");
    if (NT_SUCCESS(status)) {
        callDriver("EvtDeviceFileCreate", create, wdf(), request->wdf(),
                   static_cast<WDFFILEOBJECT>(object->handle()));
    } else {
        request->release();
        Irp::complete(irp, status, 0);
    }
}

void Device::dispatchCleanup(PIRP irp) {
    const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    auto* object = static_cast<FileObject*>(file->FsContext2);
    if (object != nullptr && settings_.fileConfig->EvtFileCleanup != nullptr) {
        callDriver("EvtFileCleanup", settings_.fileConfig->EvtFileCleanup,
                   static_cast<WDFFILEOBJECT>(object->handle()));
    }
    for (const Ref<PacketQueue>& queue : queues()) {
        queue->cancelWaiting(file);
    }
    Irp::complete(irp, STATUS_SUCCESS, 0);
}

void Device::dispatchClose(PIRP irp) {
    auto* object = static_cast<FileObject*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext2);
    if (object != nullptr) {
        if (settings_.fileConfig->EvtFileClose != nullptr) {
            callDriver("EvtFileClose", settings_.fileConfig->EvtFileClose,
                       static_cast<WDFFILEOBJECT>(object->handle()));
        }
        object->remove();
    }
    Irp::complete(irp, STATUS_SUCCESS, 0);
}

void Device::dispatchIo(PIRP irp) {
    Ref<PacketQueue> queue;
    {
        KernelGuard guard;
        if (defaultQueue_ != nullptr) {
            queue = refLocked(defaultQueue_);
        }
    }
    if (!queue) {
        Irp::complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
        return;
    }
    queue->accept(irp, static_cast<FileObject*>(IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext2));
}

Device& requireDeviceAbove(const Call& call, Object& object) {
    for (Object* ancestor = &object; ancestor != nullptr; ancestor = ancestor->parent()) {
        if (ancestor->kind() == Kind::Device) {
            return static_cast<Device&>(*ancestor);
        }
    }
    call.fail(Rule::ObjectTree, &object, "The parent belongs to no device.");
}

namespace {

// Those of the device-add callbacks under way, guarded by the kernel lock: a driver may have kept the address
// of an earlier one.
base::MachinePart<std::vector<const WDFDEVICE_INIT*>> initsUnderWay;

WDFDEVICE_INIT& requireInit(const Call& call, PWDFDEVICE_INIT init) {
    bool underWay = false;
    {
        KernelGuard guard;
        underWay = std::find(initsUnderWay->begin(), initsUnderWay->end(), init) != initsUnderWay->end();
    }
    if (!underWay || init->device) {
        call.fail(Rule::PnpOrder, nullptr,
                  "The initialization record is used outside EvtDriverDeviceAdd or "
                  "after the device was created.");
    }
    return *init;
}

} // namespace

} // namespace framework

WDFDEVICE_INIT::WDFDEVICE_INIT() {
    kernel::KernelGuard guard;
    framework::initsUnderWay->push_back(this);
}

WDFDEVICE_INIT::~WDFDEVICE_INIT() {
    kernel::KernelGuard guard;
    std::erase(*framework::initsUnderWay, this);
}

using framework::Call;
using framework::Ref;
using framework::Rule;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

VOID WdfDeviceInitSetPnpPowerEventCallbacks(PWDFDEVICE_INIT DeviceInit,
                                            PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks) {
    Call call("WdfDeviceInitSetPnpPowerEventCallbacks", kDispatchLevel);
    WDFDEVICE_INIT& init = framework::requireInit(call, DeviceInit);
    if (PnpPowerEventCallbacks->Size != sizeof(WDF_PNPPOWER_EVENT_CALLBACKS)) {
        call.fail(Rule::Argument, nullptr, "WDF_PNPPOWER_EVENT_CALLBACKS has a wrong size.");
    }
    if (PnpPowerEventCallbacks->EvtDeviceUsageNotification != nullptr ||
        PnpPowerEventCallbacks->EvtDeviceUsageNotificationEx != nullptr ||
        PnpPowerEventCallbacks->EvtDeviceRelationsQuery != nullptr) {
        call.fail(Rule::Argument, nullptr,
                  "This platform never calls EvtDeviceUsageNotification and EvtDeviceRelationsQuery.");
    }
    init.settings.callbacks = *PnpPowerEventCallbacks;
}

VOID WdfDeviceInitSetIoType(PWDFDEVICE_INIT DeviceInit, WDF_DEVICE_IO_TYPE IoType) {
    Call call("WdfDeviceInitSetIoType", kDispatchLevel);
    WDFDEVICE_INIT& init = framework::requireInit(call, DeviceInit);
    if (IoType < WdfDeviceIoNeither || IoType > WdfDeviceIoDirect) {
        call.fail(Rule::Argument, nullptr, fmt::format("{} is no I/O type.", static_cast<int>(IoType)));
    }
    init.settings.ioType = IoType;
}

VOID WdfDeviceInitSetFileObjectConfig(PWDFDEVICE_INIT DeviceInit, PWDF_FILEOBJECT_CONFIG FileObjectConfig,
                                      PWDF_OBJECT_ATTRIBUTES FileObjectAttributes) {
    Call call("WdfDeviceInitSetFileObjectConfig", kDispatchLevel);
    WDFDEVICE_INIT& init = framework::requireInit(call, DeviceInit);
    if (FileObjectConfig->Size != sizeof(WDF_FILEOBJECT_CONFIG)) {
        call.fail(Rule::Argument, nullptr, "WDF_FILEOBJECT_CONFIG has a wrong size.");
    }
    Ref<framework::Object> parent;
    if (!NT_SUCCESS(checkAttributes(call, FileObjectAttributes,
                                    {.parentAllowed = false, .levelAllowed = true}, nullptr, parent))) {
        call.fail(Rule::Argument, nullptr, "The file object attributes are not valid.");
    }
    init.settings.fileConfig = *FileObjectConfig;
    if (FileObjectAttributes != nullptr) {
        init.settings.fileAttributes = *FileObjectAttributes;
    }
}

NTSTATUS WdfDeviceInitAssignWdmIrpPreprocessCallback(
    PWDFDEVICE_INIT DeviceInit, PFN_WDFDEVICE_WDM_IRP_PREPROCESS EvtDeviceWdmIrpPreprocess,
    UCHAR MajorFunction, PUCHAR MinorFunctions, ULONG NumMinorFunctions) {
    Call call("WdfDeviceInitAssignWdmIrpPreprocessCallback", kDispatchLevel);
    WDFDEVICE_INIT& init = framework::requireInit(call, DeviceInit);
    if (EvtDeviceWdmIrpPreprocess == nullptr) {
        call.fail(Rule::Argument, nullptr, "There is no callback.");
    }
    if (MajorFunction > IRP_MJ_MAXIMUM_FUNCTION || (NumMinorFunctions != 0 && MinorFunctions == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (NumMinorFunctions != 0 &&
        std::any_of(init.settings.preprocess.begin(), init.settings.preprocess.end(), [&](const auto& entry) {
            return entry.major == MajorFunction && !entry.minors.empty();
        })) {
        call.fail(Rule::Argument, nullptr,
                  fmt::format("Major function {} has its minor functions already.", MajorFunction));
    }
    if (call.fault(kernel::FaultKind::Allocation)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    framework::PreprocessEntry entry{EvtDeviceWdmIrpPreprocess, MajorFunction, {}};
    if (NumMinorFunctions != 0) {
        entry.minors.assign(MinorFunctions, MinorFunctions + NumMinorFunctions);
    }
    init.settings.preprocess.push_back(std::move(entry));
    return STATUS_SUCCESS;
}

NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes,
                         WDFDEVICE* Device) {
    Call call("WdfDeviceCreate", kPassiveLevel);
    if (DeviceInit == nullptr || Device == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Device = nullptr;
    WDFDEVICE_INIT& init = framework::requireInit(call, *DeviceInit);
    Ref<framework::Device> device;
    const NTSTATUS status = createObject(
        call, DeviceAttributes, {.parentAllowed = false, .levelAllowed = true}, &requireDriver(call), device,
        [&](framework::Object*) { return new framework::Device(init.bus, init.settings); });
    if (!NT_SUCCESS(status)) {
        return status;
    }
    init.device = device;
    *DeviceInit = nullptr;
    *Device = device->wdf();
    return STATUS_SUCCESS;
}

VOID WdfDeviceSetPnpCapabilities(WDFDEVICE Device, PWDF_DEVICE_PNP_CAPABILITIES PnpCapabilities) {
    Call call("WdfDeviceSetPnpCapabilities", kPassiveLevel);
    auto device = call.object<framework::Device>(Device);
    if (PnpCapabilities->Size != sizeof(WDF_DEVICE_PNP_CAPABILITIES)) {
        call.fail(Rule::Argument, device.get(), "WDF_DEVICE_PNP_CAPABILITIES has a wrong size.");
    }
    device->capabilities = *PnpCapabilities;
}

PDEVICE_OBJECT WdfDeviceWdmGetDeviceObject(WDFDEVICE Device) {
    Call call("WdfDeviceWdmGetDeviceObject", kDispatchLevel);
    return call.object<framework::Device>(Device)->deviceObject();
}

PDEVICE_OBJECT WdfDeviceWdmGetPhysicalDevice(WDFDEVICE Device) {
    Call call("WdfDeviceWdmGetPhysicalDevice", kDispatchLevel);
    return call.object<framework::Device>(Device)->pdo();
}

// There is no other driver between this driver's device object and the bus driver's.
PDEVICE_OBJECT WdfDeviceWdmGetAttachedDevice(WDFDEVICE Device) {
    Call call("WdfDeviceWdmGetAttachedDevice", kDispatchLevel);
    return call.object<framework::Device>(Device)->pdo();
}

NTSTATUS WdfDeviceWdmDispatchPreprocessedIrp(WDFDEVICE Device, PIRP Irp) {
    Call call("WdfDeviceWdmDispatchPreprocessedIrp", kDispatchLevel);
    framework::Device* device = nullptr;
    {
        // No reference is kept: a removal destroys the device before this call returns.
        auto reference = call.object<framework::Device>(Device);
        device = reference.get();
    }
    if (!framework::Irp::restoreTop(Irp)) {
        call.fail(Rule::PnpOrder, device, "The driver has not skipped its stack location.");
    }
    device->dispatchToFramework(Irp);
    return Irp->IoStatus.Status;
}

WDFDRIVER WdfDeviceGetDriver(WDFDEVICE Device) {
    Call call("WdfDeviceGetDriver", kDispatchLevel);
    auto device = call.object<framework::Device>(Device);
    return static_cast<WDFDRIVER>(device->parent()->handle());
}
