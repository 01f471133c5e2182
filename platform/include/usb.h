// USB request blocks and the status values of the host stack.
#pragma once

#include <ntddk.h>
#include <usbspec.h>

typedef LONG USBD_STATUS;
typedef PVOID USBD_PIPE_HANDLE;
typedef PVOID USBD_CONFIGURATION_HANDLE;
typedef PVOID USBD_INTERFACE_HANDLE;

#define USBD_SUCCESS(status) ((USBD_STATUS)(status) >= 0)
#define USBD_PENDING(status) ((ULONG)(status) >> 30 == 1)
#define USBD_ERROR(status) ((USBD_STATUS)(status) < 0)

#define USBD_STATUS_SUCCESS ((USBD_STATUS)0x00000000)
#define USBD_STATUS_PENDING ((USBD_STATUS)0x40000000)
#define USBD_STATUS_CRC ((USBD_STATUS)0xC0000001)
#define USBD_STATUS_STALL_PID ((USBD_STATUS)0xC0000004)
#define USBD_STATUS_DEV_NOT_RESPONDING ((USBD_STATUS)0xC0000005)
#define USBD_STATUS_DATA_OVERRUN ((USBD_STATUS)0xC0000008)
#define USBD_STATUS_XACT_ERROR ((USBD_STATUS)0xC0000011)
#define USBD_STATUS_BABBLE_DETECTED ((USBD_STATUS)0xC0000012)
#define USBD_STATUS_ENDPOINT_HALTED ((USBD_STATUS)0xC0000030)
#define USBD_STATUS_INVALID_URB_FUNCTION ((USBD_STATUS)0x80000200)
#define USBD_STATUS_INVALID_PARAMETER ((USBD_STATUS)0x80000300)
#define USBD_STATUS_ERROR_BUSY ((USBD_STATUS)0x80000400)
#define USBD_STATUS_REQUEST_FAILED ((USBD_STATUS)0x80000500)
#define USBD_STATUS_INVALID_PIPE_HANDLE ((USBD_STATUS)0x80000600)
#define USBD_STATUS_ERROR_SHORT_TRANSFER ((USBD_STATUS)0x80000900)
#define USBD_STATUS_INSUFFICIENT_RESOURCES ((USBD_STATUS)0xC0001000)
#define USBD_STATUS_SET_CONFIG_FAILED ((USBD_STATUS)0xC0002000)
#define USBD_STATUS_BUFFER_TOO_SMALL ((USBD_STATUS)0xC0003000)
#define USBD_STATUS_INTERFACE_NOT_FOUND ((USBD_STATUS)0xC0004000)
#define USBD_STATUS_TIMEOUT ((USBD_STATUS)0xC0006000)
#define USBD_STATUS_DEVICE_GONE ((USBD_STATUS)0xC0007000)
#define USBD_STATUS_CANCELED ((USBD_STATUS)0xC0010000)

#define URB_FUNCTION_SELECT_CONFIGURATION 0x0000
#define URB_FUNCTION_SELECT_INTERFACE 0x0001
#define URB_FUNCTION_ABORT_PIPE 0x0002
#define URB_FUNCTION_CONTROL_TRANSFER 0x0008
#define URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER 0x0009
#define URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE 0x000B
#define URB_FUNCTION_VENDOR_DEVICE 0x0017
#define URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL 0x001E
#define URB_FUNCTION_SYNC_RESET_PIPE 0x0030
#define URB_FUNCTION_CONTROL_TRANSFER_EX 0x0032

#define USBD_TRANSFER_DIRECTION_OUT 0u
#define USBD_TRANSFER_DIRECTION_IN 1u
#define USBD_SHORT_TRANSFER_OK 2u
#define USBD_TRANSFER_DIRECTION(flags) ((flags)&USBD_TRANSFER_DIRECTION_IN)

typedef enum _USBD_PIPE_TYPE {
    UsbdPipeTypeControl,
    UsbdPipeTypeIsochronous,
    UsbdPipeTypeBulk,
    UsbdPipeTypeInterrupt
} USBD_PIPE_TYPE;

typedef struct _USBD_VERSION_INFORMATION {
    ULONG USBDI_Version;
    ULONG Supported_USB_Version;
} USBD_VERSION_INFORMATION, *PUSBD_VERSION_INFORMATION;

typedef struct _USBD_PIPE_INFORMATION {
    USHORT MaximumPacketSize;
    UCHAR EndpointAddress;
    UCHAR Interval;
    USBD_PIPE_TYPE PipeType;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG MaximumTransferSize;
    ULONG PipeFlags;
} USBD_PIPE_INFORMATION, *PUSBD_PIPE_INFORMATION;

typedef struct _USBD_INTERFACE_INFORMATION {
    USHORT Length;
    UCHAR InterfaceNumber;
    UCHAR AlternateSetting;
    UCHAR Class;
    UCHAR SubClass;
    UCHAR Protocol;
    UCHAR Reserved;
    USBD_INTERFACE_HANDLE InterfaceHandle;
    ULONG NumberOfPipes;
    USBD_PIPE_INFORMATION Pipes[1];
} USBD_INTERFACE_INFORMATION, *PUSBD_INTERFACE_INFORMATION;

struct _URB_HEADER {
    USHORT Length;
    USHORT Function;
    USBD_STATUS Status;
    PVOID UsbdDeviceHandle;
    ULONG UsbdFlags;
};

struct _URB_HCD_AREA {
    PVOID Reserved8[8];
};

struct _URB_BULK_OR_INTERRUPT_TRANSFER {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
};

struct _URB_CONTROL_TRANSFER {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR SetupPacket[8];
};

struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST {
    struct _URB_HEADER Hdr;
    PVOID Reserved;
    ULONG TransferFlags;
    ULONG TransferBufferLength;
    PVOID TransferBuffer;
    PMDL TransferBufferMDL;
    struct _URB* UrbLink;
    struct _URB_HCD_AREA hca;
    UCHAR RequestTypeReservedBits;
    UCHAR Request;
    USHORT Value;
    USHORT Index;
    USHORT Reserved1;
};

struct _URB_PIPE_REQUEST {
    struct _URB_HEADER Hdr;
    USBD_PIPE_HANDLE PipeHandle;
    ULONG Reserved;
};

struct _URB_SELECT_INTERFACE {
    struct _URB_HEADER Hdr;
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    USBD_INTERFACE_INFORMATION Interface;
};

typedef struct _URB {
    union {
        struct _URB_HEADER UrbHeader;
        struct _URB_BULK_OR_INTERRUPT_TRANSFER UrbBulkOrInterruptTransfer;
        struct _URB_CONTROL_TRANSFER UrbControlTransfer;
        struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST UrbControlVendorClassRequest;
        struct _URB_PIPE_REQUEST UrbPipeRequest;
        struct _URB_SELECT_INTERFACE UrbSelectInterface;
    };
} URB, *PURB;
