// The framework's USB targets: device, interfaces and pipes.
#pragma once

#include <usbdlib.h>
#include <wdf.h>

typedef enum _WdfUsbTargetDeviceSelectConfigType {
    WdfUsbTargetDeviceSelectConfigTypeInvalid = 0,
    WdfUsbTargetDeviceSelectConfigTypeDeconfig = 1,
    WdfUsbTargetDeviceSelectConfigTypeSingleInterface = 2,
    WdfUsbTargetDeviceSelectConfigTypeMultiInterface = 3,
    WdfUsbTargetDeviceSelectConfigTypeInterfacesPairs = 4,
    WdfUsbTargetDeviceSelectConfigTypeInterfacesDescriptor = 5,
    WdfUsbTargetDeviceSelectConfigTypeUrb = 6
} WdfUsbTargetDeviceSelectConfigType;

typedef enum _WdfUsbTargetDeviceSelectSettingType {
    WdfUsbInterfaceSelectSettingTypeDescriptor = 0x10,
    WdfUsbInterfaceSelectSettingTypeSetting = 0x11,
    WdfUsbInterfaceSelectSettingTypeUrb = 0x12
} WdfUsbTargetDeviceSelectSettingType;

// One above USBD_PIPE_TYPE throughout.
typedef enum _WDF_USB_PIPE_TYPE {
    WdfUsbPipeTypeInvalid = 0,
    WdfUsbPipeTypeControl,
    WdfUsbPipeTypeIsochronous,
    WdfUsbPipeTypeBulk,
    WdfUsbPipeTypeInterrupt
} WDF_USB_PIPE_TYPE;

typedef enum _WDF_USB_REQUEST_TYPE {
    WdfUsbRequestTypeInvalid = 0,
    WdfUsbRequestTypeNoFormat,
    WdfUsbRequestTypeDeviceString,
    WdfUsbRequestTypeDeviceControlTransfer,
    WdfUsbRequestTypeDeviceUrb,
    WdfUsbRequestTypePipeWrite,
    WdfUsbRequestTypePipeRead,
    WdfUsbRequestTypePipeAbort,
    WdfUsbRequestTypePipeReset,
    WdfUsbRequestTypePipeUrb
} WDF_USB_REQUEST_TYPE;

typedef enum _WDF_USB_BMREQUEST_DIRECTION {
    BmRequestHostToDevice = 0,
    BmRequestDeviceToHost = 1
} WDF_USB_BMREQUEST_DIRECTION;
typedef enum _WDF_USB_BMREQUEST_TYPE {
    BmRequestStandard = 0,
    BmRequestClass = 1,
    BmRequestVendor = 2
} WDF_USB_BMREQUEST_TYPE;
typedef enum _WDF_USB_BMREQUEST_RECIPIENT {
    BmRequestToDevice = 0,
    BmRequestToInterface = 1,
    BmRequestToEndpoint = 2,
    BmRequestToOther = 3
} WDF_USB_BMREQUEST_RECIPIENT;

#define WDF_USB_DEVICE_TRAIT_SELF_POWERED 0x1u
#define WDF_USB_DEVICE_TRAIT_REMOTE_WAKE_CAPABLE 0x2u
#define WDF_USB_DEVICE_TRAIT_AT_HIGH_SPEED 0x4u

typedef union _WDF_USB_CONTROL_SETUP_PACKET {
    struct {
        union {
            struct {
                BYTE Recipient : 2;
                BYTE Reserved : 3;
                BYTE Type : 2;
                BYTE Dir : 1;
            } Request;
            BYTE Byte;
        } bm;
        BYTE bRequest;
        union {
            struct {
                BYTE LowByte;
                BYTE HiByte;
            } Bytes;
            USHORT Value;
        } wValue;
        union {
            struct {
                BYTE LowByte;
                BYTE HiByte;
            } Bytes;
            USHORT Value;
        } wIndex;
        USHORT wLength;
    } Packet;
    struct {
        BYTE Bytes[8];
    } Generic;
} WDF_USB_CONTROL_SETUP_PACKET, *PWDF_USB_CONTROL_SETUP_PACKET;

inline VOID WDF_USB_CONTROL_SETUP_PACKET_INIT_VENDOR(PWDF_USB_CONTROL_SETUP_PACKET packet,
                                                     WDF_USB_BMREQUEST_DIRECTION direction,
                                                     WDF_USB_BMREQUEST_RECIPIENT recipient, BYTE request,
                                                     USHORT value, USHORT index) {
    *packet = {};
    packet->Packet.bm.Request.Dir = (BYTE)(direction & 1);
    packet->Packet.bm.Request.Type = BmRequestVendor;
    packet->Packet.bm.Request.Recipient = (BYTE)(recipient & 3);
    packet->Packet.bRequest = request;
    packet->Packet.wValue.Value = value;
    packet->Packet.wIndex.Value = index;
}

typedef struct _WDF_USB_REQUEST_COMPLETION_PARAMS {
    USBD_STATUS UsbdStatus;
    WDF_USB_REQUEST_TYPE Type;
    union {
        struct {
            WDFMEMORY Buffer;
            USHORT LangID;
            UCHAR StringIndex;
            UCHAR RequiredSize;
        } DeviceString;
        struct {
            WDFMEMORY Buffer;
            WDF_USB_CONTROL_SETUP_PACKET SetupPacket;
            ULONG Length;
        } DeviceControlTransfer;
        struct {
            WDFMEMORY Buffer;
        } DeviceUrb;
        struct {
            WDFMEMORY Buffer;
            size_t Length;
            size_t Offset;
        } PipeWrite;
        struct {
            WDFMEMORY Buffer;
            size_t Length;
            size_t Offset;
        } PipeRead;
        struct {
            WDFMEMORY Buffer;
        } PipeUrb;
    } Parameters;
} WDF_USB_REQUEST_COMPLETION_PARAMS, *PWDF_USB_REQUEST_COMPLETION_PARAMS;

typedef struct _WDF_USB_DEVICE_INFORMATION {
    ULONG Size;
    USBD_VERSION_INFORMATION UsbdVersionInformation;
    ULONG HcdPortCapabilities;
    ULONG Traits;
} WDF_USB_DEVICE_INFORMATION, *PWDF_USB_DEVICE_INFORMATION;

inline VOID WDF_USB_DEVICE_INFORMATION_INIT(PWDF_USB_DEVICE_INFORMATION information) {
    *information = {};
    information->Size = sizeof(*information);
}

typedef struct _WDF_USB_INTERFACE_SETTING_PAIR {
    WDFUSBINTERFACE UsbInterface;
    UCHAR SettingIndex;
} WDF_USB_INTERFACE_SETTING_PAIR, *PWDF_USB_INTERFACE_SETTING_PAIR;

typedef struct _WDF_USB_DEVICE_SELECT_CONFIG_PARAMS {
    ULONG Size;
    WdfUsbTargetDeviceSelectConfigType Type;
    union {
        struct {
            PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor;
            PUSB_INTERFACE_DESCRIPTOR* InterfaceDescriptors;
            ULONG NumInterfaceDescriptors;
        } Descriptor;
        struct {
            PURB Urb;
        } Urb;
        struct {
            UCHAR NumberConfiguredPipes;
            WDFUSBINTERFACE ConfiguredUsbInterface;
        } SingleInterface;
        struct {
            UCHAR NumberInterfaces;
            PWDF_USB_INTERFACE_SETTING_PAIR Pairs;
            UCHAR NumberOfConfiguredInterfaces;
        } MultiInterface;
    } Types;
} WDF_USB_DEVICE_SELECT_CONFIG_PARAMS, *PWDF_USB_DEVICE_SELECT_CONFIG_PARAMS;

inline VOID
WDF_USB_DEVICE_SELECT_CONFIG_PARAMS_INIT_SINGLE_INTERFACE(PWDF_USB_DEVICE_SELECT_CONFIG_PARAMS params) {
    *params = {};
    params->Size = sizeof(*params);
    params->Type = WdfUsbTargetDeviceSelectConfigTypeSingleInterface;
}

// Without pairs every interface takes its setting 0.
inline VOID
WDF_USB_DEVICE_SELECT_CONFIG_PARAMS_INIT_MULTIPLE_INTERFACES(PWDF_USB_DEVICE_SELECT_CONFIG_PARAMS params,
                                                             UCHAR interfaceCount,
                                                             PWDF_USB_INTERFACE_SETTING_PAIR pairs) {
    *params = {};
    params->Size = sizeof(*params);
    params->Type = pairs != nullptr ? WdfUsbTargetDeviceSelectConfigTypeInterfacesPairs
                                    : WdfUsbTargetDeviceSelectConfigTypeMultiInterface;
    params->Types.MultiInterface.NumberInterfaces = interfaceCount;
    params->Types.MultiInterface.Pairs = pairs;
}

typedef struct _WDF_USB_INTERFACE_SELECT_SETTING_PARAMS {
    ULONG Size;
    WdfUsbTargetDeviceSelectSettingType Type;
    union {
        struct {
            PUSB_INTERFACE_DESCRIPTOR InterfaceDescriptor;
        } Descriptor;
        struct {
            UCHAR SettingIndex;
        } Interface;
        struct {
            PURB Urb;
        } Urb;
    } Types;
} WDF_USB_INTERFACE_SELECT_SETTING_PARAMS, *PWDF_USB_INTERFACE_SELECT_SETTING_PARAMS;

inline VOID
WDF_USB_INTERFACE_SELECT_SETTING_PARAMS_INIT_SETTING(PWDF_USB_INTERFACE_SELECT_SETTING_PARAMS params,
                                                     UCHAR settingIndex) {
    *params = {};
    params->Size = sizeof(*params);
    params->Type = WdfUsbInterfaceSelectSettingTypeSetting;
    params->Types.Interface.SettingIndex = settingIndex;
}

typedef struct _WDF_USB_PIPE_INFORMATION {
    ULONG Size;
    ULONG MaximumPacketSize;
    UCHAR EndpointAddress;
    UCHAR Interval;
    UCHAR SettingIndex;
    WDF_USB_PIPE_TYPE PipeType;
    ULONG MaximumTransferSize;
} WDF_USB_PIPE_INFORMATION, *PWDF_USB_PIPE_INFORMATION;

inline VOID WDF_USB_PIPE_INFORMATION_INIT(PWDF_USB_PIPE_INFORMATION information) {
    *information = {};
    information->Size = sizeof(*information);
}

typedef VOID(EVT_WDF_USB_READER_COMPLETION_ROUTINE)(WDFUSBPIPE Pipe, WDFMEMORY Buffer,
                                                    size_t NumBytesTransferred, WDFCONTEXT Context);
typedef BOOLEAN(EVT_WDF_USB_READERS_FAILED)(WDFUSBPIPE Pipe, NTSTATUS Status, USBD_STATUS UsbdStatus);
typedef EVT_WDF_USB_READER_COMPLETION_ROUTINE* PFN_WDF_USB_READER_COMPLETION_ROUTINE;
typedef EVT_WDF_USB_READERS_FAILED* PFN_WDF_USB_READERS_FAILED;

typedef struct _WDF_USB_CONTINUOUS_READER_CONFIG {
    ULONG Size;
    size_t TransferLength;
    size_t HeaderLength;
    size_t TrailerLength;
    UCHAR NumPendingReads; // 0 is the framework's default of two
    PWDF_OBJECT_ATTRIBUTES BufferAttributes;
    PFN_WDF_USB_READER_COMPLETION_ROUTINE EvtUsbTargetPipeReadComplete;
    WDFCONTEXT EvtUsbTargetPipeReadCompleteContext;
    PFN_WDF_USB_READERS_FAILED EvtUsbTargetPipeReadersFailed;
} WDF_USB_CONTINUOUS_READER_CONFIG, *PWDF_USB_CONTINUOUS_READER_CONFIG;

inline VOID WDF_USB_CONTINUOUS_READER_CONFIG_INIT(PWDF_USB_CONTINUOUS_READER_CONFIG config,
                                                  PFN_WDF_USB_READER_COMPLETION_ROUTINE readComplete,
                                                  WDFCONTEXT context, size_t transferLength) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtUsbTargetPipeReadComplete = readComplete;
    config->EvtUsbTargetPipeReadCompleteContext = context;
    config->TransferLength = transferLength;
}

// A USB device and a pipe are I/O targets themselves; the framework accepts their handles as such.
inline WDFIOTARGET WdfUsbTargetDeviceGetIoTarget(WDFUSBDEVICE device) {
    return (WDFIOTARGET)device;
}
inline WDFIOTARGET WdfUsbTargetPipeGetIoTarget(WDFUSBPIPE pipe) {
    return (WDFIOTARGET)pipe;
}

#define DECLARE_WDF_FUNCTION(index, result, name, parameters, arguments) extern "C" result name parameters;
WDF_USB_FUNCTIONS(DECLARE_WDF_FUNCTION)
#undef DECLARE_WDF_FUNCTION
