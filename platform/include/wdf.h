// The framework: configuration records with their initializers, and its functions.
#pragma once

#include <wdf_functions.h>
#include <wdftypes.h>

// The object model.

typedef struct _WDF_OBJECT_ATTRIBUTES {
    ULONG Size;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP EvtCleanupCallback;
    PFN_WDF_OBJECT_CONTEXT_DESTROY EvtDestroyCallback;
    WDF_EXECUTION_LEVEL ExecutionLevel;
    WDF_SYNCHRONIZATION_SCOPE SynchronizationScope;
    WDFOBJECT ParentObject;
    size_t ContextSizeOverride;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO ContextTypeInfo;
} WDF_OBJECT_ATTRIBUTES, *PWDF_OBJECT_ATTRIBUTES;

inline VOID WDF_OBJECT_ATTRIBUTES_INIT(PWDF_OBJECT_ATTRIBUTES attributes) {
    *attributes = {};
    attributes->Size = sizeof(*attributes);
    attributes->ExecutionLevel = WdfExecutionLevelInheritFromParent;
    attributes->SynchronizationScope = WdfSynchronizationScopeInheritFromParent;
}
#define WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(attributes, type)                                             \
    ((attributes)->ContextTypeInfo = WDF_GET_CONTEXT_TYPE_INFO(type))
#define WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(attributes, type)                                            \
    (WDF_OBJECT_ATTRIBUTES_INIT(attributes), WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(attributes, type))

#define WdfObjectReference(handle)                                                                           \
    WdfObjectReferenceActual(handle, nullptr, __LINE__, const_cast<PCHAR>(__FILE__))
#define WdfObjectDereference(handle)                                                                         \
    WdfObjectDereferenceActual(handle, nullptr, __LINE__, const_cast<PCHAR>(__FILE__))

// Driver and device.

typedef struct _WDF_DRIVER_GLOBALS {
    WDFDRIVER Driver;
    ULONG DriverFlags;
    ULONG DriverTag;
    CHAR DriverName[32];
    BOOLEAN DisplaceDriverUnload;
} WDF_DRIVER_GLOBALS, *PWDF_DRIVER_GLOBALS;

extern "C" PWDF_DRIVER_GLOBALS WdfDriverGlobals;

// The driver object, or null before WdfDriverCreate has succeeded.
inline WDFDRIVER WdfGetDriver() {
    return WdfDriverGlobals->Driver;
}

typedef struct _WDF_DRIVER_CONFIG {
    ULONG Size;
    PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd;
    PFN_WDF_DRIVER_UNLOAD EvtDriverUnload;
    ULONG DriverInitFlags;
    ULONG DriverPoolTag;
} WDF_DRIVER_CONFIG, *PWDF_DRIVER_CONFIG;

inline VOID WDF_DRIVER_CONFIG_INIT(PWDF_DRIVER_CONFIG config, PFN_WDF_DRIVER_DEVICE_ADD deviceAdd) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtDriverDeviceAdd = deviceAdd;
}

typedef struct _WDF_PNPPOWER_EVENT_CALLBACKS {
    ULONG Size;
    PFN_WDF_DEVICE_D0_ENTRY EvtDeviceD0Entry;
    PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED EvtDeviceD0EntryPostInterruptsEnabled;
    PFN_WDF_DEVICE_D0_EXIT EvtDeviceD0Exit;
    PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED EvtDeviceD0ExitPreInterruptsDisabled;
    PFN_WDF_DEVICE_PREPARE_HARDWARE EvtDevicePrepareHardware;
    PFN_WDF_DEVICE_RELEASE_HARDWARE EvtDeviceReleaseHardware;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP EvtDeviceSelfManagedIoCleanup;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH EvtDeviceSelfManagedIoFlush;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT EvtDeviceSelfManagedIoInit;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND EvtDeviceSelfManagedIoSuspend;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART EvtDeviceSelfManagedIoRestart;
    PFN_WDF_DEVICE_SURPRISE_REMOVAL EvtDeviceSurpriseRemoval;
    PFN_WDF_DEVICE_QUERY_REMOVE EvtDeviceQueryRemove;
    PFN_WDF_DEVICE_QUERY_STOP EvtDeviceQueryStop;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION EvtDeviceUsageNotification;
    PFN_WDF_DEVICE_RELATIONS_QUERY EvtDeviceRelationsQuery;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION_EX EvtDeviceUsageNotificationEx;
} WDF_PNPPOWER_EVENT_CALLBACKS, *PWDF_PNPPOWER_EVENT_CALLBACKS;

inline VOID WDF_PNPPOWER_EVENT_CALLBACKS_INIT(PWDF_PNPPOWER_EVENT_CALLBACKS callbacks) {
    *callbacks = {};
    callbacks->Size = sizeof(*callbacks);
}

typedef struct _WDF_FILEOBJECT_CONFIG {
    ULONG Size;
    PFN_WDF_DEVICE_FILE_CREATE EvtDeviceFileCreate;
    PFN_WDF_FILE_CLOSE EvtFileClose;
    PFN_WDF_FILE_CLEANUP EvtFileCleanup;
    WDF_TRI_STATE AutoForwardCleanupClose;
    WDF_FILEOBJECT_CLASS FileObjectClass;
} WDF_FILEOBJECT_CONFIG, *PWDF_FILEOBJECT_CONFIG;

inline VOID WDF_FILEOBJECT_CONFIG_INIT(PWDF_FILEOBJECT_CONFIG config, PFN_WDF_DEVICE_FILE_CREATE create,
                                       PFN_WDF_FILE_CLOSE close, PFN_WDF_FILE_CLEANUP cleanup) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtDeviceFileCreate = create;
    config->EvtFileClose = close;
    config->EvtFileCleanup = cleanup;
    config->AutoForwardCleanupClose = WdfUseDefault;
    config->FileObjectClass = WdfFileObjectWdfCannotUseFsContexts;
}

typedef struct _WDF_DEVICE_PNP_CAPABILITIES {
    ULONG Size;
    WDF_TRI_STATE LockSupported;
    WDF_TRI_STATE EjectSupported;
    WDF_TRI_STATE Removable;
    WDF_TRI_STATE DockDevice;
    WDF_TRI_STATE UniqueID;
    WDF_TRI_STATE SilentInstall;
    WDF_TRI_STATE SurpriseRemovalOK;
    WDF_TRI_STATE HardwareDisabled;
    WDF_TRI_STATE NoDisplayInUI;
    ULONG Address;
    ULONG UINumber;
} WDF_DEVICE_PNP_CAPABILITIES, *PWDF_DEVICE_PNP_CAPABILITIES;

inline VOID WDF_DEVICE_PNP_CAPABILITIES_INIT(PWDF_DEVICE_PNP_CAPABILITIES caps) {
    *caps = {sizeof(*caps), WdfUseDefault, WdfUseDefault, WdfUseDefault, WdfUseDefault, WdfUseDefault,
             WdfUseDefault, WdfUseDefault, WdfUseDefault, WdfUseDefault, MAXULONG,      MAXULONG};
}

// Queues and requests.

typedef struct _WDF_IO_QUEUE_CONFIG {
    ULONG Size;
    WDF_IO_QUEUE_DISPATCH_TYPE DispatchType;
    WDF_TRI_STATE PowerManaged;
    BOOLEAN AllowZeroLengthRequests;
    BOOLEAN DefaultQueue;
    PFN_WDF_IO_QUEUE_IO_DEFAULT EvtIoDefault;
    PFN_WDF_IO_QUEUE_IO_READ EvtIoRead;
    PFN_WDF_IO_QUEUE_IO_WRITE EvtIoWrite;
    PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL EvtIoDeviceControl;
    PFN_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL EvtIoInternalDeviceControl;
    PFN_WDF_IO_QUEUE_IO_STOP EvtIoStop;
    PFN_WDF_IO_QUEUE_IO_RESUME EvtIoResume;
    PFN_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE EvtIoCanceledOnQueue;
    union {
        struct {
            ULONG NumberOfPresentedRequests;
        } Parallel;
    } Settings;
    WDFDRIVER Driver;
} WDF_IO_QUEUE_CONFIG, *PWDF_IO_QUEUE_CONFIG;

inline VOID WDF_IO_QUEUE_CONFIG_INIT(PWDF_IO_QUEUE_CONFIG config, WDF_IO_QUEUE_DISPATCH_TYPE dispatchType) {
    *config = {};
    config->Size = sizeof(*config);
    config->PowerManaged = WdfUseDefault;
    config->DispatchType = dispatchType;
    if (dispatchType == WdfIoQueueDispatchParallel) {
        config->Settings.Parallel.NumberOfPresentedRequests = MAXULONG;
    }
}
inline VOID WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(PWDF_IO_QUEUE_CONFIG config,
                                                   WDF_IO_QUEUE_DISPATCH_TYPE dispatchType) {
    WDF_IO_QUEUE_CONFIG_INIT(config, dispatchType);
    config->DefaultQueue = TRUE;
}

typedef struct _WDF_REQUEST_REUSE_PARAMS {
    ULONG Size;
    ULONG Flags;
    NTSTATUS Status;
    PIRP NewIrp;
} WDF_REQUEST_REUSE_PARAMS, *PWDF_REQUEST_REUSE_PARAMS;

inline VOID WDF_REQUEST_REUSE_PARAMS_INIT(PWDF_REQUEST_REUSE_PARAMS params, ULONG flags, NTSTATUS status) {
    *params = {sizeof(*params), flags, status, nullptr};
}

typedef struct _WDF_REQUEST_SEND_OPTIONS {
    ULONG Size;
    ULONG Flags;
    LONGLONG Timeout; // 100 ns; negative is relative
} WDF_REQUEST_SEND_OPTIONS, *PWDF_REQUEST_SEND_OPTIONS;

inline VOID WDF_REQUEST_SEND_OPTIONS_INIT(PWDF_REQUEST_SEND_OPTIONS options, ULONG flags) {
    *options = {sizeof(*options), flags, 0};
}
inline VOID WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(PWDF_REQUEST_SEND_OPTIONS options, LONGLONG timeout) {
    options->Flags |= WDF_REQUEST_SEND_OPTION_TIMEOUT;
    options->Timeout = timeout;
}

typedef struct _WDF_REQUEST_COMPLETION_PARAMS {
    ULONG Size;
    WDF_REQUEST_TYPE Type;
    IO_STATUS_BLOCK IoStatus;
    union {
        struct {
            WDFMEMORY Buffer;
            size_t Length;
            size_t Offset;
        } Write;
        struct {
            WDFMEMORY Buffer;
            size_t Length;
            size_t Offset;
        } Read;
        struct {
            ULONG IoControlCode;
            struct {
                WDFMEMORY Buffer;
                size_t Offset;
            } Input;
            struct {
                WDFMEMORY Buffer;
                size_t Offset;
                size_t Length;
            } Output;
        } Ioctl;
        struct {
            union {
                PVOID Ptr;
                ULONG_PTR Value;
            } Argument1, Argument2, Argument3, Argument4;
        } Others;
        struct {
            struct _WDF_USB_REQUEST_COMPLETION_PARAMS* Completion;
        } Usb;
    } Parameters;
} WDF_REQUEST_COMPLETION_PARAMS;

inline VOID WDF_REQUEST_COMPLETION_PARAMS_INIT(PWDF_REQUEST_COMPLETION_PARAMS params) {
    *params = {};
    params->Size = sizeof(*params);
    params->Type = WdfRequestTypeNoFormat;
}

typedef struct _WDF_REQUEST_PARAMETERS {
    USHORT Size;
    UCHAR MinorFunction;
    WDF_REQUEST_TYPE Type;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT FileAttributes DECLSPEC_ALIGN(8);
            USHORT ShareAccess;
            ULONG EaLength DECLSPEC_ALIGN(8);
        } Create;
        struct {
            size_t Length;
            ULONG Key DECLSPEC_ALIGN(8);
            LONGLONG DeviceOffset;
        } Read, Write;
        struct {
            size_t OutputBufferLength;
            size_t InputBufferLength DECLSPEC_ALIGN(8);
            ULONG IoControlCode DECLSPEC_ALIGN(8);
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Arg1;
            PVOID Arg2;
            ULONG IoControlCode DECLSPEC_ALIGN(8);
            PVOID Arg4;
        } Others;
    } Parameters;
} WDF_REQUEST_PARAMETERS, *PWDF_REQUEST_PARAMETERS;

inline VOID WDF_REQUEST_PARAMETERS_INIT(PWDF_REQUEST_PARAMETERS parameters) {
    *parameters = {};
    parameters->Size = sizeof(*parameters);
}

// Memory.

typedef struct _WDFMEMORY_OFFSET {
    size_t BufferOffset;
    size_t BufferLength;
} WDFMEMORY_OFFSET, *PWDFMEMORY_OFFSET;

typedef struct _WDF_MEMORY_DESCRIPTOR {
    WDF_MEMORY_DESCRIPTOR_TYPE Type;
    union {
        struct {
            PVOID Buffer;
            ULONG Length;
        } BufferType;
        struct {
            PMDL Mdl;
            ULONG BufferLength;
        } MdlType;
        struct {
            WDFMEMORY Memory;
            PWDFMEMORY_OFFSET Offsets;
        } HandleType;
    } u;
} WDF_MEMORY_DESCRIPTOR, *PWDF_MEMORY_DESCRIPTOR;

inline VOID WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(PWDF_MEMORY_DESCRIPTOR descriptor, PVOID buffer, ULONG length) {
    *descriptor = {};
    descriptor->Type = WdfMemoryDescriptorTypeBuffer;
    descriptor->u.BufferType = {buffer, length};
}
inline VOID WDF_MEMORY_DESCRIPTOR_INIT_MDL(PWDF_MEMORY_DESCRIPTOR descriptor, PMDL mdl, ULONG length) {
    *descriptor = {};
    descriptor->Type = WdfMemoryDescriptorTypeMdl;
    descriptor->u.MdlType = {mdl, length};
}
inline VOID WDF_MEMORY_DESCRIPTOR_INIT_HANDLE(PWDF_MEMORY_DESCRIPTOR descriptor, WDFMEMORY memory,
                                              PWDFMEMORY_OFFSET offsets) {
    *descriptor = {};
    descriptor->Type = WdfMemoryDescriptorTypeHandle;
    descriptor->u.HandleType = {memory, offsets};
}

// Timers and work items.

typedef struct _WDF_TIMER_CONFIG {
    ULONG Size;
    PFN_WDF_TIMER EvtTimerFunc;
    ULONG Period; // ms; 0 is one-shot
    BOOLEAN AutomaticSerialization;
    ULONG TolerableDelay;
    DECLSPEC_ALIGN(8) BOOLEAN UseHighResolutionTimer;
} WDF_TIMER_CONFIG, *PWDF_TIMER_CONFIG;

inline VOID WDF_TIMER_CONFIG_INIT(PWDF_TIMER_CONFIG config, PFN_WDF_TIMER function) {
    *config = {};
    config->Size = sizeof(*config);
    config->EvtTimerFunc = function;
    config->AutomaticSerialization = TRUE;
}
inline VOID WDF_TIMER_CONFIG_INIT_PERIODIC(PWDF_TIMER_CONFIG config, PFN_WDF_TIMER function, LONG period) {
    WDF_TIMER_CONFIG_INIT(config, function);
    config->Period = (ULONG)period;
}

typedef struct _WDF_WORKITEM_CONFIG {
    ULONG Size;
    PFN_WDF_WORKITEM EvtWorkItemFunc;
    BOOLEAN AutomaticSerialization;
} WDF_WORKITEM_CONFIG, *PWDF_WORKITEM_CONFIG;

inline VOID WDF_WORKITEM_CONFIG_INIT(PWDF_WORKITEM_CONFIG config, PFN_WDF_WORKITEM function) {
    *config = {sizeof(*config), function, TRUE};
}

// Times as the framework takes them: 100 ns, relative ones negative.
inline LONGLONG WDF_REL_TIMEOUT_IN_US(ULONGLONG microseconds) {
    return -(LONGLONG)(microseconds * 10);
}
inline LONGLONG WDF_REL_TIMEOUT_IN_MS(ULONGLONG milliseconds) {
    return -(LONGLONG)(milliseconds * 10000);
}
inline LONGLONG WDF_REL_TIMEOUT_IN_SEC(ULONGLONG seconds) {
    return -(LONGLONG)(seconds * 10000000);
}

#define DECLARE_WDF_FUNCTION(index, result, name, parameters, arguments) extern "C" result name parameters;
WDF_FUNCTIONS(DECLARE_WDF_FUNCTION)
#undef DECLARE_WDF_FUNCTION
