#include "usb/configuration.h"

#include "base/pool.h"
#include "device/device_context.h"
#include "usb/chip.h"

namespace {

constexpr UCHAR ENDPOINT_DIRECTION_IN = 0x80;
constexpr ULONG CONTROL_BUFFER_SIZE = sizeof(ULONG);

NTSTATUS CreateControlRequest(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.RegisterMutex) {
    USB_CONTEXT* usb = &context->Usb;
    NTSTATUS status =
        WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, usb->UsbIoTarget, &context->Usb.ControlRequest);
    if (!NT_SUCCESS(status)) {
        context->Usb.ControlRequest = nullptr;
        return status;
    }
    PVOID buffer = nullptr;
    status = WdfMemoryCreate(WDF_NO_OBJECT_ATTRIBUTES, DriverPoolType, POOL_TAG_DRIVER, CONTROL_BUFFER_SIZE,
                             &context->Usb.ControlMemory, &buffer);
    if (!NT_SUCCESS(status)) {
        context->Usb.ControlMemory = nullptr;
        buffer = nullptr;
    }
    context->Usb.ControlBuffer = static_cast<ULONG*>(buffer);
    return status;
}

void ForgetBulkPipe(USB_CONTEXT* usb) {
    usb->BulkOutPipe = nullptr;
    usb->BulkOutPipeHandle = nullptr;
}

} // namespace

NTSTATUS USB_CreateTarget(DEVICE_CONTEXT* context) {
    USB_CONTEXT* usb = &context->Usb;
    if (usb->UsbDevice == nullptr) {
        const NTSTATUS status =
            WdfUsbTargetDeviceCreate(context->Device, WDF_NO_OBJECT_ATTRIBUTES, &usb->UsbDevice);
        if (!NT_SUCCESS(status)) {
            usb->UsbDevice = nullptr;
            return status;
        }
        usb->UsbIoTarget = WdfUsbTargetDeviceGetIoTarget(usb->UsbDevice);
    }
    {
        MUTEX_GUARD transfer(context->Usb.RegisterMutex);
        const NTSTATUS status = CreateControlRequest(context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    WdfUsbTargetDeviceGetDeviceDescriptor(usb->UsbDevice, &usb->DeviceDescriptor);
    USB_ClassifyChip(context);
    return USB_RetrieveConfigDescriptor(context);
}

void USB_DeleteControlRequest(DEVICE_CONTEXT* context) {
    MUTEX_GUARD transfer(context->Usb.RegisterMutex);
    if (context->Usb.ControlRequest != nullptr) {
        WdfObjectDelete(context->Usb.ControlRequest);
        context->Usb.ControlRequest = nullptr;
    }
    if (context->Usb.ControlMemory != nullptr) {
        WdfObjectDelete(context->Usb.ControlMemory);
        context->Usb.ControlMemory = nullptr;
        context->Usb.ControlBuffer = nullptr;
    }
}

NTSTATUS USB_RetrieveConfigDescriptor(DEVICE_CONTEXT* context) {
    const WDFUSBDEVICE usbDevice = context->Usb.UsbDevice;
    USHORT length = 0;
    NTSTATUS status = WdfUsbTargetDeviceRetrieveConfigDescriptor(usbDevice, nullptr, &length);
    if (status != STATUS_BUFFER_TOO_SMALL || length == 0) {
        // A success without a size means an adapter without a configuration.
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = usbDevice;
    WDFMEMORY memory = nullptr;
    PVOID buffer = nullptr;
    status = WdfMemoryCreate(&attributes, DriverPoolType, POOL_TAG_DRIVER, length, &memory, &buffer);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfUsbTargetDeviceRetrieveConfigDescriptor(usbDevice, buffer, &length);
    // The framework keeps a copy of its own. This one would stay with the USB device, which outlives a stop
    // and start: one more at each start.
    WdfObjectDelete(memory);
    return NT_SUCCESS(status) ? USB_SelectConfiguration(context) : status;
}

NTSTATUS USB_SelectConfiguration(DEVICE_CONTEXT* context) {
    USB_CONTEXT* usb = &context->Usb;
    if (!CHIP_Traits(context).IsSupported) {
        return STATUS_UNSUCCESSFUL;
    }

    const UCHAR interfaceCount = WdfUsbTargetDeviceGetNumInterfaces(usb->UsbDevice);
    if (interfaceCount < USB_INTERFACE_COUNT) {
        // Without streaming and status interface the adapter cannot show a picture.
        return STATUS_UNSUCCESSFUL;
    }
    for (UCHAR i = 0; i < USB_INTERFACE_COUNT; i++) {
        usb->UsbInterfaces[i] = WdfUsbTargetDeviceGetInterface(usb->UsbDevice, i);
    }

    // After a stop and start there are pipes of the last configuration. The selection ends them.
    ForgetBulkPipe(usb);
    WDF_USB_DEVICE_SELECT_CONFIG_PARAMS params;
    WDF_USB_DEVICE_SELECT_CONFIG_PARAMS_INIT_MULTIPLE_INTERFACES(&params, 0, nullptr);
    return WdfUsbTargetDeviceSelectConfig(usb->UsbDevice, WDF_NO_OBJECT_ATTRIBUTES, &params);
}

WDFUSBPIPE USB_FindPipe(WDFUSBINTERFACE usbInterface, WDF_USB_PIPE_TYPE type, ULONG direction) {
    const UCHAR pipeCount = WdfUsbInterfaceGetNumConfiguredPipes(usbInterface);
    for (UCHAR i = 0; i < pipeCount; i++) {
        WDF_USB_PIPE_INFORMATION information;
        WDF_USB_PIPE_INFORMATION_INIT(&information);
        const WDFUSBPIPE pipe = WdfUsbInterfaceGetConfiguredPipe(usbInterface, i, &information);
        const ULONG pipeDirection =
            (information.EndpointAddress & ENDPOINT_DIRECTION_IN) != 0 ? USB_DIRECTION_IN : USB_DIRECTION_OUT;
        if (information.PipeType == type && pipeDirection == direction) {
            return pipe;
        }
    }
    return nullptr;
}

NTSTATUS USB_SelectAlternateSetting(DEVICE_CONTEXT* context, WDFUSBINTERFACE usbInterface) {
    WDF_USB_INTERFACE_SELECT_SETTING_PARAMS params;
    WDF_USB_INTERFACE_SELECT_SETTING_PARAMS_INIT_SETTING(&params, 0);
    const NTSTATUS status = WdfUsbInterfaceSelectSetting(usbInterface, WDF_NO_OBJECT_ATTRIBUTES, &params);
    if (!NT_SUCCESS(status)) {
        ForgetBulkPipe(&context->Usb); // The interface has no pipes now, and their handles are void.
        return status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS USB_ConfigurePipes(DEVICE_CONTEXT* context) {
    USB_CONTEXT* usb = &context->Usb;
    ForgetBulkPipe(usb);
    usb->BulkOutPipe =
        USB_FindPipe(usb->UsbInterfaces[USB_STREAMING_INTERFACE], WdfUsbPipeTypeBulk, USB_DIRECTION_OUT);
    if (usb->BulkOutPipe == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    usb->BulkOutPipeHandle = WdfUsbTargetPipeWdmGetPipeHandle(usb->BulkOutPipe);
    return usb->BulkOutPipeHandle != nullptr ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
