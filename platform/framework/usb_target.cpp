// The driver's calls on a USB device target.
#include "platform/framework/device.h"
#include "platform/framework/request.h"
#include "platform/framework/usb_device.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>

using framework::Call;
using framework::Ref;
using framework::Rule;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

NTSTATUS WdfUsbTargetDeviceCreate(WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES Attributes,
                                  WDFUSBDEVICE* UsbDevice) {
    Call call("WdfUsbTargetDeviceCreate", kPassiveLevel);
    auto device = call.object<framework::Device>(Device);
    if (UsbDevice == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *UsbDevice = nullptr;
    if (device->pnpState() != framework::PnpState::Preparing) {
        call.fail(Rule::UsbTarget, device.get(), "The USB target is created in EvtDevicePrepareHardware.");
    }
    Ref<framework::UsbDevice> usbDevice;
    // The target follows the PnP state of its device and so belongs to nothing else.
    NTSTATUS status = createObject(call, Attributes, {.parentAllowed = false}, device.get(), usbDevice,
                                   [&](framework::Object*) { return new framework::UsbDevice(*device); });
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = usbDevice->enumerate(call);
    if (!NT_SUCCESS(status)) {
        usbDevice->remove();
        return status;
    }
    *UsbDevice = usbDevice->wdf();
    return STATUS_SUCCESS;
}

NTSTATUS WdfUsbTargetDeviceRetrieveInformation(WDFUSBDEVICE UsbDevice,
                                               PWDF_USB_DEVICE_INFORMATION Information) {
    Call call("WdfUsbTargetDeviceRetrieveInformation", kDispatchLevel);
    auto device = call.object<framework::UsbDevice>(UsbDevice);
    if (Information->Size != sizeof(WDF_USB_DEVICE_INFORMATION)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    *Information = device->information();
    return STATUS_SUCCESS;
}

VOID WdfUsbTargetDeviceGetDeviceDescriptor(WDFUSBDEVICE UsbDevice,
                                           PUSB_DEVICE_DESCRIPTOR UsbDeviceDescriptor) {
    Call call("WdfUsbTargetDeviceGetDeviceDescriptor", kPassiveLevel);
    *UsbDeviceDescriptor = call.object<framework::UsbDevice>(UsbDevice)->descriptor();
}

NTSTATUS WdfUsbTargetDeviceRetrieveConfigDescriptor(WDFUSBDEVICE UsbDevice, PVOID ConfigDescriptor,
                                                    PUSHORT ConfigDescriptorLength) {
    Call call("WdfUsbTargetDeviceRetrieveConfigDescriptor", kPassiveLevel);
    auto device = call.object<framework::UsbDevice>(UsbDevice);
    const auto& configuration = device->configuration();
    const USHORT room = *ConfigDescriptorLength;
    *ConfigDescriptorLength = static_cast<USHORT>(configuration.size());
    if (ConfigDescriptor == nullptr) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(ConfigDescriptor, configuration.data(), std::min<std::size_t>(room, configuration.size()));
    return room < configuration.size() ? STATUS_BUFFER_TOO_SMALL : STATUS_SUCCESS;
}

UCHAR WdfUsbTargetDeviceGetNumInterfaces(WDFUSBDEVICE UsbDevice) {
    Call call("WdfUsbTargetDeviceGetNumInterfaces", kDispatchLevel);
    return static_cast<UCHAR>(call.object<framework::UsbDevice>(UsbDevice)->interfaceCount());
}

WDFUSBINTERFACE WdfUsbTargetDeviceGetInterface(WDFUSBDEVICE UsbDevice, UCHAR InterfaceIndex) {
    Call call("WdfUsbTargetDeviceGetInterface", kDispatchLevel);
    auto device = call.object<framework::UsbDevice>(UsbDevice);
    return InterfaceIndex < device->interfaceCount() ? device->interface(InterfaceIndex).wdf() : nullptr;
}

NTSTATUS WdfUsbTargetDeviceSelectConfig(WDFUSBDEVICE UsbDevice, PWDF_OBJECT_ATTRIBUTES PipeAttributes,
                                        PWDF_USB_DEVICE_SELECT_CONFIG_PARAMS Params) {
    Call call("WdfUsbTargetDeviceSelectConfig", kPassiveLevel);
    return call.object<framework::UsbDevice>(UsbDevice)->selectConfig(call, PipeAttributes, *Params);
}

namespace {

struct Buffer {
    void* data = nullptr;
    std::size_t size = 0;
    Ref<framework::Memory> memory;
};

// The memory that a descriptor describes; STATUS_INVALID_PARAMETER for one that describes none.
NTSTATUS resolve(const Call& call, const WDF_MEMORY_DESCRIPTOR* descriptor, Buffer& buffer) {
    if (descriptor == nullptr) {
        return STATUS_SUCCESS;
    }
    switch (descriptor->Type) {
    case WdfMemoryDescriptorTypeBuffer:
        buffer = {descriptor->u.BufferType.Buffer, descriptor->u.BufferType.Length, {}};
        requireTransferBuffer(call, nullptr, buffer.data, buffer.size);
        return STATUS_SUCCESS;
    case WdfMemoryDescriptorTypeMdl:
        requireTransferMdl(call, nullptr, descriptor->u.MdlType.Mdl);
        buffer = {MmGetSystemAddressForMdlSafe(descriptor->u.MdlType.Mdl, NormalPagePriority),
                  descriptor->u.MdlType.BufferLength,
                  {}};
        return buffer.size <= MmGetMdlByteCount(descriptor->u.MdlType.Mdl) ? STATUS_SUCCESS
                                                                           : STATUS_BUFFER_TOO_SMALL;
    case WdfMemoryDescriptorTypeHandle: {
        auto memory = call.object<framework::Memory>(descriptor->u.HandleType.Memory);
        std::size_t offset = 0;
        std::size_t length = memory->size();
        if (const WDFMEMORY_OFFSET* offsets = descriptor->u.HandleType.Offsets; offsets != nullptr) {
            if (offsets->BufferOffset > memory->size() ||
                offsets->BufferLength > memory->size() - offsets->BufferOffset) {
                return STATUS_INTEGER_OVERFLOW;
            }
            offset = offsets->BufferOffset;
            length = offsets->BufferLength != 0 ? offsets->BufferLength : memory->size() - offset;
        }
        buffer = {static_cast<std::uint8_t*>(memory->buffer()) + offset, length, memory};
        requireTransferBuffer(call, memory.get(), buffer.data, buffer.size);
        return STATUS_SUCCESS;
    }
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

} // namespace

NTSTATUS WdfUsbTargetDeviceSendControlTransferSynchronously(WDFUSBDEVICE UsbDevice, WDFREQUEST Request,
                                                            PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                                            PWDF_USB_CONTROL_SETUP_PACKET SetupPacket,
                                                            PWDF_MEMORY_DESCRIPTOR MemoryDescriptor,
                                                            PULONG BytesTransferred) {
    Call call("WdfUsbTargetDeviceSendControlTransferSynchronously", kPassiveLevel);
    auto device = call.object<framework::UsbDevice>(UsbDevice);
    WDF_REQUEST_SEND_OPTIONS options;
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
    if (RequestOptions != nullptr) {
        constexpr ULONG kOffered = WDF_REQUEST_SEND_OPTION_TIMEOUT | WDF_REQUEST_SEND_OPTION_SYNCHRONOUS |
                                   WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE;
        if (RequestOptions->Size != sizeof(WDF_REQUEST_SEND_OPTIONS)) {
            return STATUS_INFO_LENGTH_MISMATCH;
        }
        if ((RequestOptions->Flags & ~kOffered) != 0) {
            return STATUS_INVALID_PARAMETER;
        }
        options.Flags |= RequestOptions->Flags;
        options.Timeout = RequestOptions->Timeout;
    }
    Buffer buffer;
    NTSTATUS status = resolve(call, MemoryDescriptor, buffer);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (buffer.size > std::numeric_limits<USHORT>::max()) {
        return STATUS_INVALID_PARAMETER;
    }
    Ref<framework::Request> request;
    const bool own = Request == nullptr;
    if (own) {
        status = createObject(call, nullptr, {}, device.get(), request,
                              [](framework::Object*) { return new framework::Request(); });
        if (!NT_SUCCESS(status)) {
            return status;
        }
    } else {
        request = call.object<framework::Request>(Request);
        request->requireFormattable(call);
    }
    WDF_USB_CONTROL_SETUP_PACKET setup = *SetupPacket;
    setup.Packet.wLength = static_cast<USHORT>(buffer.size);
    request->formatForControl(*device, setup, buffer.data, buffer.size, buffer.memory);
    request->setCompletionRoutine(nullptr, nullptr); // One that the driver has set is not called.
    WDF_REQUEST_COMPLETION_PARAMS params = {};
    request->send(call, *device, &options);
    request->completionParams(params);
    status = request->status();
    if (BytesTransferred != nullptr) {
        *BytesTransferred = NT_SUCCESS(status) ? static_cast<ULONG>(params.IoStatus.Information) : 0;
    }
    if (own) {
        request->remove();
    }
    return status;
}

NTSTATUS WdfUsbTargetDeviceFormatRequestForUrb(WDFUSBDEVICE UsbDevice, WDFREQUEST Request,
                                               WDFMEMORY UrbMemory, PWDFMEMORY_OFFSET UrbMemoryOffset) {
    Call call("WdfUsbTargetDeviceFormatRequestForUrb", kDispatchLevel);
    auto device = call.object<framework::UsbDevice>(UsbDevice);
    auto request = call.object<framework::Request>(Request);
    auto memory = call.object<framework::Memory>(UrbMemory);
    request->requireFormattable(call);
    const std::size_t offset = UrbMemoryOffset != nullptr ? UrbMemoryOffset->BufferOffset : 0;
    if (offset > memory->size()) {
        return STATUS_INTEGER_OVERFLOW;
    }
    if (memory->size() - offset < sizeof(_URB_HEADER)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(kernel::FaultKind::Allocation)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    request->formatForUrb(*device, memory, offset);
    return STATUS_SUCCESS;
}
