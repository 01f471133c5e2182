// The USB side of an adapter: identity, target, pipes, and the one control transfer that all register
// accesses share. Written by usb/.
#pragma once

#include "base/lock.h"

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <wdf.h>
#include <wdfusb.h>

constexpr ULONG USB_INTERFACE_COUNT = 3; // 0 unused, 1 streaming, 2 status
constexpr ULONG USB_STREAMING_INTERFACE = 1;
constexpr ULONG USB_STATUS_INTERFACE = 2;

// The board with the transmitter's video inputs in reverse.
constexpr USHORT ADAPTER_ALT_PRODUCT_ID = ADAPTER_PRODUCT_ID - 2;

constexpr USHORT USB_BCD_HIGH_SPEED_LINK = 0x0210; // bcdUSB of an adapter on a USB 2.0 link
constexpr USHORT USB_BCD_SUPER_SPEED_LINK = 0x0300;

struct USB_CONTEXT {
    // Set at hardware preparation.
    USB_DEVICE_DESCRIPTOR DeviceDescriptor;
    WDFUSBDEVICE UsbDevice; // kept across stop and start
    WDFIOTARGET UsbIoTarget;
    WDFUSBINTERFACE UsbInterfaces[USB_INTERFACE_COUNT];
    ULONG ChipRevision; // 0 to 3; their differences: usb/chip.h

    // Cleared by hardware preparation and refreshed by timing programming, both while the pipeline is
    // stopped; read by the send path. Null without a bulk pipe.
    WDFUSBPIPE BulkOutPipe;
    USBD_PIPE_HANDLE BulkOutPipeHandle;

    DEVICE_MUTEX RegisterMutex; // one register transfer
    WDFREQUEST ControlRequest TSA_GUARDED_BY(RegisterMutex);
    WDFMEMORY ControlMemory TSA_GUARDED_BY(RegisterMutex);
    ULONG* ControlBuffer TSA_GUARDED_BY(RegisterMutex);
    WDF_MEMORY_DESCRIPTOR ControlMemoryDescriptor TSA_GUARDED_BY(RegisterMutex);

    // Held for all transactions on the serial master that belong together (an EDID read, a transmitter's
    // sequence): the master has one set of command and data registers, and the transmitter one bank
    // selection.
    DEVICE_MUTEX SerialMasterMutex;
};
