// The framework's functions: index in the framework's table, result, name, parameters, argument names. The
// table's entries take the driver's globals before the parameters given here. The prototypes of the bench
// come from this list; the Windows image generates its table calls from it.
#pragma once

#define WDF_FUNCTIONS(X)                                                                                     \
    X(13, NTSTATUS, WdfCollectionCreate,                                                                     \
      (PWDF_OBJECT_ATTRIBUTES CollectionAttributes, WDFCOLLECTION * Collection),                             \
      (CollectionAttributes, Collection))                                                                    \
    X(14, ULONG, WdfCollectionGetCount, (WDFCOLLECTION Collection), (Collection))                            \
    X(15, NTSTATUS, WdfCollectionAdd, (WDFCOLLECTION Collection, WDFOBJECT Object), (Collection, Object))    \
    X(16, VOID, WdfCollectionRemove, (WDFCOLLECTION Collection, WDFOBJECT Item), (Collection, Item))         \
    X(17, VOID, WdfCollectionRemoveItem, (WDFCOLLECTION Collection, ULONG Index), (Collection, Index))       \
    X(18, WDFOBJECT, WdfCollectionGetItem, (WDFCOLLECTION Collection, ULONG Index), (Collection, Index))     \
    X(19, WDFOBJECT, WdfCollectionGetFirstItem, (WDFCOLLECTION Collection), (Collection))                    \
    X(31, PDEVICE_OBJECT, WdfDeviceWdmGetDeviceObject, (WDFDEVICE Device), (Device))                         \
    X(32, PDEVICE_OBJECT, WdfDeviceWdmGetAttachedDevice, (WDFDEVICE Device), (Device))                       \
    X(33, PDEVICE_OBJECT, WdfDeviceWdmGetPhysicalDevice, (WDFDEVICE Device), (Device))                       \
    X(34, NTSTATUS, WdfDeviceWdmDispatchPreprocessedIrp, (WDFDEVICE Device, PIRP Irp), (Device, Irp))        \
    X(39, WDFDRIVER, WdfDeviceGetDriver, (WDFDEVICE Device), (Device))                                       \
    X(55, VOID, WdfDeviceInitSetPnpPowerEventCallbacks,                                                      \
      (PWDFDEVICE_INIT DeviceInit, PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks),                    \
      (DeviceInit, PnpPowerEventCallbacks))                                                                  \
    X(61, VOID, WdfDeviceInitSetIoType, (PWDFDEVICE_INIT DeviceInit, WDF_DEVICE_IO_TYPE IoType),             \
      (DeviceInit, IoType))                                                                                  \
    X(71, VOID, WdfDeviceInitSetFileObjectConfig,                                                            \
      (PWDFDEVICE_INIT DeviceInit, PWDF_FILEOBJECT_CONFIG FileObjectConfig,                                  \
       PWDF_OBJECT_ATTRIBUTES FileObjectAttributes),                                                         \
      (DeviceInit, FileObjectConfig, FileObjectAttributes))                                                  \
    X(73, NTSTATUS, WdfDeviceInitAssignWdmIrpPreprocessCallback,                                             \
      (PWDFDEVICE_INIT DeviceInit, PFN_WDFDEVICE_WDM_IRP_PREPROCESS EvtDeviceWdmIrpPreprocess,               \
       UCHAR MajorFunction, PUCHAR MinorFunctions, ULONG NumMinorFunctions),                                 \
      (DeviceInit, EvtDeviceWdmIrpPreprocess, MajorFunction, MinorFunctions, NumMinorFunctions))             \
    X(75, NTSTATUS, WdfDeviceCreate,                                                                         \
      (PWDFDEVICE_INIT * DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes, WDFDEVICE * Device),           \
      (DeviceInit, DeviceAttributes, Device))                                                                \
    X(83, VOID, WdfDeviceSetPnpCapabilities,                                                                 \
      (WDFDEVICE Device, PWDF_DEVICE_PNP_CAPABILITIES PnpCapabilities), (Device, PnpCapabilities))           \
    X(116, NTSTATUS, WdfDriverCreate,                                                                        \
      (PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath, PWDF_OBJECT_ATTRIBUTES DriverAttributes,  \
       PWDF_DRIVER_CONFIG DriverConfig, WDFDRIVER * Driver),                                                 \
      (DriverObject, RegistryPath, DriverAttributes, DriverConfig, Driver))                                  \
    X(117, PWSTR, WdfDriverGetRegistryPath, (WDFDRIVER Driver), (Driver))                                    \
    X(119, NTSTATUS, WdfDriverOpenParametersRegistryKey,                                                     \
      (WDFDRIVER Driver, ACCESS_MASK DesiredAccess, PWDF_OBJECT_ATTRIBUTES KeyAttributes, WDFKEY * Key),     \
      (Driver, DesiredAccess, KeyAttributes, Key))                                                           \
    X(152, NTSTATUS, WdfIoQueueCreate,                                                                       \
      (WDFDEVICE Device, PWDF_IO_QUEUE_CONFIG Config, PWDF_OBJECT_ATTRIBUTES QueueAttributes,                \
       WDFQUEUE * Queue),                                                                                    \
      (Device, Config, QueueAttributes, Queue))                                                              \
    X(157, WDFDEVICE, WdfIoQueueGetDevice, (WDFQUEUE Queue), (Queue))                                        \
    X(171, NTSTATUS, WdfIoTargetStart, (WDFIOTARGET IoTarget), (IoTarget))                                   \
    X(172, VOID, WdfIoTargetStop, (WDFIOTARGET IoTarget, WDF_IO_TARGET_SENT_IO_ACTION Action),               \
      (IoTarget, Action))                                                                                    \
    X(192, NTSTATUS, WdfMemoryCreate,                                                                        \
      (PWDF_OBJECT_ATTRIBUTES Attributes, POOL_TYPE PoolType, ULONG PoolTag, size_t BufferSize,              \
       WDFMEMORY * Memory, PVOID * Buffer),                                                                  \
      (Attributes, PoolType, PoolTag, BufferSize, Memory, Buffer))                                           \
    X(193, NTSTATUS, WdfMemoryCreatePreallocated,                                                            \
      (PWDF_OBJECT_ATTRIBUTES Attributes, PVOID Buffer, size_t BufferSize, WDFMEMORY * Memory),              \
      (Attributes, Buffer, BufferSize, Memory))                                                              \
    X(194, PVOID, WdfMemoryGetBuffer, (WDFMEMORY Memory, size_t * BufferSize), (Memory, BufferSize))         \
    X(198, NTSTATUS, WdfLookasideListCreate,                                                                 \
      (PWDF_OBJECT_ATTRIBUTES LookasideAttributes, size_t BufferSize, POOL_TYPE PoolType,                    \
       PWDF_OBJECT_ATTRIBUTES MemoryAttributes, ULONG PoolTag, WDFLOOKASIDE * Lookaside),                    \
      (LookasideAttributes, BufferSize, PoolType, MemoryAttributes, PoolTag, Lookaside))                     \
    X(199, NTSTATUS, WdfMemoryCreateFromLookaside, (WDFLOOKASIDE Lookaside, WDFMEMORY * Memory),             \
      (Lookaside, Memory))                                                                                   \
    X(202, PVOID, WdfObjectGetTypedContextWorker,                                                            \
      (WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo), (Handle, TypeInfo))                       \
    X(204, WDFOBJECT, WdfObjectContextGetObject, (PVOID ContextPointer), (ContextPointer))                   \
    X(205, VOID, WdfObjectReferenceActual, (WDFOBJECT Handle, PVOID Tag, LONG Line, PCHAR File),             \
      (Handle, Tag, Line, File))                                                                             \
    X(206, VOID, WdfObjectDereferenceActual, (WDFOBJECT Handle, PVOID Tag, LONG Line, PCHAR File),           \
      (Handle, Tag, Line, File))                                                                             \
    X(208, VOID, WdfObjectDelete, (WDFOBJECT Object), (Object))                                              \
    X(231, VOID, WdfRegistryClose, (WDFKEY Key), (Key))                                                      \
    X(235, NTSTATUS, WdfRegistryQueryValue,                                                                  \
      (WDFKEY Key, PCUNICODE_STRING ValueName, ULONG ValueLength, PVOID Value, PULONG ValueLengthQueried,    \
       PULONG ValueType),                                                                                    \
      (Key, ValueName, ValueLength, Value, ValueLengthQueried, ValueType))                                   \
    X(240, NTSTATUS, WdfRegistryQueryULong, (WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value),          \
      (Key, ValueName, Value))                                                                               \
    X(246, NTSTATUS, WdfRegistryAssignULong, (WDFKEY Key, PCUNICODE_STRING ValueName, ULONG Value),          \
      (Key, ValueName, Value))                                                                               \
    X(247, NTSTATUS, WdfRequestCreate,                                                                       \
      (PWDF_OBJECT_ATTRIBUTES RequestAttributes, WDFIOTARGET IoTarget, WDFREQUEST * Request),                \
      (RequestAttributes, IoTarget, Request))                                                                \
    X(249, NTSTATUS, WdfRequestReuse, (WDFREQUEST Request, PWDF_REQUEST_REUSE_PARAMS ReuseParams),           \
      (Request, ReuseParams))                                                                                \
    X(253, BOOLEAN, WdfRequestSend,                                                                          \
      (WDFREQUEST Request, WDFIOTARGET Target, PWDF_REQUEST_SEND_OPTIONS Options),                           \
      (Request, Target, Options))                                                                            \
    X(254, NTSTATUS, WdfRequestGetStatus, (WDFREQUEST Request), (Request))                                   \
    X(258, BOOLEAN, WdfRequestCancelSentRequest, (WDFREQUEST Request), (Request))                            \
    X(260, VOID, WdfRequestSetCompletionRoutine,                                                             \
      (WDFREQUEST Request, PFN_WDF_REQUEST_COMPLETION_ROUTINE CompletionRoutine,                             \
       WDFCONTEXT CompletionContext),                                                                        \
      (Request, CompletionRoutine, CompletionContext))                                                       \
    X(261, VOID, WdfRequestGetCompletionParams, (WDFREQUEST Request, PWDF_REQUEST_COMPLETION_PARAMS Params), \
      (Request, Params))                                                                                     \
    X(263, VOID, WdfRequestComplete, (WDFREQUEST Request, NTSTATUS Status), (Request, Status))               \
    X(265, VOID, WdfRequestCompleteWithInformation,                                                          \
      (WDFREQUEST Request, NTSTATUS Status, ULONG_PTR Information), (Request, Status, Information))          \
    X(266, VOID, WdfRequestGetParameters, (WDFREQUEST Request, PWDF_REQUEST_PARAMETERS Parameters),          \
      (Request, Parameters))                                                                                 \
    X(269, NTSTATUS, WdfRequestRetrieveInputBuffer,                                                          \
      (WDFREQUEST Request, size_t MinimumRequiredLength, PVOID * Buffer, size_t * Length),                   \
      (Request, MinimumRequiredLength, Buffer, Length))                                                      \
    X(270, NTSTATUS, WdfRequestRetrieveOutputBuffer,                                                         \
      (WDFREQUEST Request, size_t MinimumRequiredSize, PVOID * Buffer, size_t * Length),                     \
      (Request, MinimumRequiredSize, Buffer, Length))                                                        \
    X(277, WDFFILEOBJECT, WdfRequestGetFileObject, (WDFREQUEST Request), (Request))                          \
    X(312, NTSTATUS, WdfWaitLockCreate, (PWDF_OBJECT_ATTRIBUTES LockAttributes, WDFWAITLOCK * Lock),         \
      (LockAttributes, Lock))                                                                                \
    X(313, NTSTATUS, WdfWaitLockAcquire, (WDFWAITLOCK Lock, PLONGLONG Timeout), (Lock, Timeout))             \
    X(314, VOID, WdfWaitLockRelease, (WDFWAITLOCK Lock), (Lock))                                             \
    X(315, NTSTATUS, WdfSpinLockCreate, (PWDF_OBJECT_ATTRIBUTES SpinLockAttributes, WDFSPINLOCK * SpinLock), \
      (SpinLockAttributes, SpinLock))                                                                        \
    X(316, VOID, WdfSpinLockAcquire, (WDFSPINLOCK SpinLock), (SpinLock))                                     \
    X(317, VOID, WdfSpinLockRelease, (WDFSPINLOCK SpinLock), (SpinLock))                                     \
    X(318, NTSTATUS, WdfTimerCreate,                                                                         \
      (PWDF_TIMER_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes, WDFTIMER * Timer),                       \
      (Config, Attributes, Timer))                                                                           \
    X(319, BOOLEAN, WdfTimerStart, (WDFTIMER Timer, LONGLONG DueTime), (Timer, DueTime))                     \
    X(320, BOOLEAN, WdfTimerStop, (WDFTIMER Timer, BOOLEAN Wait), (Timer, Wait))                             \
    X(321, WDFOBJECT, WdfTimerGetParentObject, (WDFTIMER Timer), (Timer))                                    \
    X(379, NTSTATUS, WdfWorkItemCreate,                                                                      \
      (PWDF_WORKITEM_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes, WDFWORKITEM * WorkItem),              \
      (Config, Attributes, WorkItem))                                                                        \
    X(380, VOID, WdfWorkItemEnqueue, (WDFWORKITEM WorkItem), (WorkItem))                                     \
    X(381, WDFOBJECT, WdfWorkItemGetParentObject, (WDFWORKITEM WorkItem), (WorkItem))                        \
    X(382, VOID, WdfWorkItemFlush, (WDFWORKITEM WorkItem), (WorkItem))

// Those of <wdfusb.h>.
#define WDF_USB_FUNCTIONS(X)                                                                                 \
    X(322, NTSTATUS, WdfUsbTargetDeviceCreate,                                                               \
      (WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES Attributes, WDFUSBDEVICE * UsbDevice),                       \
      (Device, Attributes, UsbDevice))                                                                       \
    X(323, NTSTATUS, WdfUsbTargetDeviceRetrieveInformation,                                                  \
      (WDFUSBDEVICE UsbDevice, PWDF_USB_DEVICE_INFORMATION Information), (UsbDevice, Information))           \
    X(324, VOID, WdfUsbTargetDeviceGetDeviceDescriptor,                                                      \
      (WDFUSBDEVICE UsbDevice, PUSB_DEVICE_DESCRIPTOR UsbDeviceDescriptor),                                  \
      (UsbDevice, UsbDeviceDescriptor))                                                                      \
    X(325, NTSTATUS, WdfUsbTargetDeviceRetrieveConfigDescriptor,                                             \
      (WDFUSBDEVICE UsbDevice, PVOID ConfigDescriptor, PUSHORT ConfigDescriptorLength),                      \
      (UsbDevice, ConfigDescriptor, ConfigDescriptorLength))                                                 \
    X(329, UCHAR, WdfUsbTargetDeviceGetNumInterfaces, (WDFUSBDEVICE UsbDevice), (UsbDevice))                 \
    X(330, NTSTATUS, WdfUsbTargetDeviceSelectConfig,                                                         \
      (WDFUSBDEVICE UsbDevice, PWDF_OBJECT_ATTRIBUTES PipeAttributes,                                        \
       PWDF_USB_DEVICE_SELECT_CONFIG_PARAMS Params),                                                         \
      (UsbDevice, PipeAttributes, Params))                                                                   \
    X(333, NTSTATUS, WdfUsbTargetDeviceSendControlTransferSynchronously,                                     \
      (WDFUSBDEVICE UsbDevice, WDFREQUEST Request, PWDF_REQUEST_SEND_OPTIONS RequestOptions,                 \
       PWDF_USB_CONTROL_SETUP_PACKET SetupPacket, PWDF_MEMORY_DESCRIPTOR MemoryDescriptor,                   \
       PULONG BytesTransferred),                                                                             \
      (UsbDevice, Request, RequestOptions, SetupPacket, MemoryDescriptor, BytesTransferred))                 \
    X(340, NTSTATUS, WdfUsbTargetDeviceFormatRequestForUrb,                                                  \
      (WDFUSBDEVICE UsbDevice, WDFREQUEST Request, WDFMEMORY UrbMemory, PWDFMEMORY_OFFSET UrbMemoryOffset),  \
      (UsbDevice, Request, UrbMemory, UrbMemoryOffset))                                                      \
    X(341, VOID, WdfUsbTargetPipeGetInformation,                                                             \
      (WDFUSBPIPE Pipe, PWDF_USB_PIPE_INFORMATION PipeInformation), (Pipe, PipeInformation))                 \
    X(345, VOID, WdfUsbTargetPipeSetNoMaximumPacketSizeCheck, (WDFUSBPIPE Pipe), (Pipe))                     \
    X(350, NTSTATUS, WdfUsbTargetPipeConfigContinuousReader,                                                 \
      (WDFUSBPIPE Pipe, PWDF_USB_CONTINUOUS_READER_CONFIG Config), (Pipe, Config))                           \
    X(360, NTSTATUS, WdfUsbInterfaceSelectSetting,                                                           \
      (WDFUSBINTERFACE UsbInterface, PWDF_OBJECT_ATTRIBUTES PipesAttributes,                                 \
       PWDF_USB_INTERFACE_SELECT_SETTING_PARAMS Params),                                                     \
      (UsbInterface, PipesAttributes, Params))                                                               \
    X(362, WDFUSBINTERFACE, WdfUsbTargetDeviceGetInterface, (WDFUSBDEVICE UsbDevice, UCHAR InterfaceIndex),  \
      (UsbDevice, InterfaceIndex))                                                                           \
    X(364, BYTE, WdfUsbInterfaceGetNumConfiguredPipes, (WDFUSBINTERFACE UsbInterface), (UsbInterface))       \
    X(365, WDFUSBPIPE, WdfUsbInterfaceGetConfiguredPipe,                                                     \
      (WDFUSBINTERFACE UsbInterface, UCHAR PipeIndex, PWDF_USB_PIPE_INFORMATION PipeInfo),                   \
      (UsbInterface, PipeIndex, PipeInfo))                                                                   \
    X(366, USBD_PIPE_HANDLE, WdfUsbTargetPipeWdmGetPipeHandle, (WDFUSBPIPE UsbPipe), (UsbPipe))
