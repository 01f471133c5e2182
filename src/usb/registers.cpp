#include "usb/registers.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "device/device_context.h"

#include <wdfusb.h>

namespace {

constexpr UCHAR VENDOR_REQUEST_READ = 0x40;
constexpr UCHAR VENDOR_REQUEST_WRITE = 0x41;
constexpr ULONG REGISTER_TRANSFER_TIMEOUT_MS = 2000;

constexpr ULONG BitMask(ULONG bit) {
    return 1u << (bit & 31);
}

// All transfers share one request, one descriptor and one buffer.
NTSTATUS TransferLocked(DEVICE_CONTEXT* context, BOOLEAN isRead, USHORT offset, ULONG* value)
    TSA_REQUIRES(context->Usb.RegisterMutex) {
    if (SHARED_Read(context->DeviceRemoved) || context->Usb.ControlRequest == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }

    WDF_REQUEST_REUSE_PARAMS reuse;
    WDF_REQUEST_REUSE_PARAMS_INIT(&reuse, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_SUCCESS);
    NTSTATUS status = WdfRequestReuse(context->Usb.ControlRequest, &reuse);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    *context->Usb.ControlBuffer = *value;
    WDF_MEMORY_DESCRIPTOR_INIT_HANDLE(&context->Usb.ControlMemoryDescriptor, context->Usb.ControlMemory,
                                      nullptr);
    WDF_USB_CONTROL_SETUP_PACKET setup;
    WDF_USB_CONTROL_SETUP_PACKET_INIT_VENDOR(&setup, isRead ? BmRequestDeviceToHost : BmRequestHostToDevice,
                                             BmRequestToDevice,
                                             isRead ? VENDOR_REQUEST_READ : VENDOR_REQUEST_WRITE, 0, offset);
    WDF_REQUEST_SEND_OPTIONS options;
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, RelativeMs(REGISTER_TRANSFER_TIMEOUT_MS));

    status = WdfUsbTargetDeviceSendControlTransferSynchronously(
        context->Usb.UsbDevice, context->Usb.ControlRequest, &options, &setup,
        &context->Usb.ControlMemoryDescriptor, nullptr);
    if (NT_SUCCESS(status)) {
        *value = *context->Usb.ControlBuffer;
    }
    return status;
}

} // namespace

NTSTATUS REG_Transfer(DEVICE_CONTEXT* context, ULONG isRead, ULONG offset, ULONG* value) {
    MUTEX_GUARD transfer(context->Usb.RegisterMutex);
    return TransferLocked(context, isRead != 0, static_cast<USHORT>(offset), value);
}

BOOLEAN REG_Read(DEVICE_CONTEXT* context, ULONG offset, ULONG* value) {
    *value = 0;
    return NT_SUCCESS(REG_Transfer(context, 1, offset, value));
}

BOOLEAN REG_Write(DEVICE_CONTEXT* context, ULONG offset, const ULONG* value) {
    ULONG sent = *value;
    return NT_SUCCESS(REG_Transfer(context, 0, offset, &sent));
}

void REG_SetMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask) {
    ULONG value;
    if (REG_Read(context, offset, &value)) {
        value |= mask;
        REG_Write(context, offset, &value);
    }
}

void REG_ClearMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask) {
    ULONG value;
    if (REG_Read(context, offset, &value)) {
        value &= ~mask;
        REG_Write(context, offset, &value);
    }
}

void REG_SetBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit) {
    REG_SetMask(context, offset, BitMask(bit));
}

void REG_ClearBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit) {
    REG_ClearMask(context, offset, BitMask(bit));
}
