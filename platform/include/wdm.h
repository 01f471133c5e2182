// Kernel objects, I/O structures and the inline helpers of the driver model, with their x64 layouts.
// Fields that the driver must not touch are opaque, but keep their place.
#pragma once

#include <interlocked.h>
#include <ntdef.h>
#include <ntstatus.h>

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool = 1,
    NonPagedPoolNx = 512,
} POOL_TYPE;

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6 } KWAIT_REASON;
typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority = 0,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;
typedef enum _MEMORY_CACHING_TYPE { MmNonCached = 0, MmCached = 1 } MEMORY_CACHING_TYPE;

#define MdlMappingNoWrite 0x80000000u
#define MdlMappingNoExecute 0x40000000u

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2

#define IO_NO_INCREMENT 0
#define EVENT_INCREMENT 1
#define MAXIMUM_WAIT_OBJECTS 64
#define THREAD_WAIT_OBJECTS 3

#define STANDARD_RIGHTS_ALL 0x001F0000u
#define SYNCHRONIZE 0x00100000u
#define THREAD_ALL_ACCESS 0x001FFFFFu
#define KEY_QUERY_VALUE 0x0001u
#define KEY_SET_VALUE 0x0002u
#define KEY_READ 0x00020019u
#define KEY_WRITE 0x00020006u

#define REG_NONE 0u
#define REG_SZ 1u
#define REG_BINARY 3u
#define REG_DWORD 4u
#define REG_OPTION_NON_VOLATILE 0u
#define REG_OPTION_VOLATILE 1u
#define REG_CREATED_NEW_KEY 1u
#define REG_OPENED_EXISTING_KEY 2u

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD* PETHREAD;
typedef struct _EPROCESS* PEPROCESS;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;
typedef struct _KWAIT_BLOCK *PKWAIT_BLOCK, *PRKWAIT_BLOCK;
typedef struct _OBJECT_HANDLE_INFORMATION* POBJECT_HANDLE_INFORMATION;
typedef struct _CLIENT_ID* PCLIENT_ID;
typedef struct _IO_SECURITY_CONTEXT* PIO_SECURITY_CONTEXT;
typedef struct _DRIVER_OBJECT* PDRIVER_OBJECT;
typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _IRP* PIRP;

// Dispatcher objects.

typedef struct _DISPATCHER_HEADER {
    union {
        struct {
            UCHAR Type;
            UCHAR Signalling;
            UCHAR Size;
            UCHAR Inserted;
        };
        LONG Lock;
    };
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, KMUTEX, *PKMUTANT, *PKMUTEX, *PRKMUTEX;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PVOID DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    LARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    LONG Period;
} KTIMER, *PKTIMER;

typedef struct _FAST_MUTEX {
    LONG Count;
    PVOID Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

typedef struct _EX_RUNDOWN_REF {
    union {
        ULONG_PTR Count;
        PVOID Ptr;
    };
} EX_RUNDOWN_REF, *PEX_RUNDOWN_REF;

// Memory descriptor lists.

typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MmGetMdlByteCount(mdl) ((mdl)->ByteCount)
#define MmGetMdlByteOffset(mdl) ((mdl)->ByteOffset)
#define MmGetMdlVirtualAddress(mdl) ((PVOID)((PCHAR)(mdl)->StartVa + (mdl)->ByteOffset))

// I/O.

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef NTSTATUS(DRIVER_INITIALIZE)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef VOID(DRIVER_UNLOAD)(PDRIVER_OBJECT DriverObject);
typedef NTSTATUS(DRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef VOID(DRIVER_CANCEL)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef NTSTATUS(IO_COMPLETION_ROUTINE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
typedef VOID(KSTART_ROUTINE)(PVOID StartContext);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;
typedef DRIVER_CANCEL* PDRIVER_CANCEL;
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_DEVICE_CONTROL 0x0E
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0F
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_POWER 0x16
#define IRP_MJ_PNP 0x1B
#define IRP_MJ_MAXIMUM_FUNCTION 0x1B

#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_QUERY_REMOVE_DEVICE 0x01
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_CANCEL_REMOVE_DEVICE 0x03
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_QUERY_STOP_DEVICE 0x05
#define IRP_MN_CANCEL_STOP_DEVICE 0x06
#define IRP_MN_SURPRISE_REMOVAL 0x17
#define IRP_MN_SET_POWER 0x02
#define IRP_MN_QUERY_POWER 0x03

#define FILE_DEVICE_UNKNOWN 0x00000022u
#define FILE_ANY_ACCESS 0u
#define METHOD_BUFFERED 0u
#define METHOD_IN_DIRECT 1u
#define METHOD_OUT_DIRECT 2u
#define METHOD_NEITHER 3u
#define CTL_CODE(deviceType, function, method, access)                                                       \
    (((ULONG)(deviceType) << 16) | ((ULONG)(access) << 14) | ((ULONG)(function) << 2) | (ULONG)(method))
#define METHOD_FROM_CTL_CODE(code) ((ULONG)(code)&3u)

typedef struct _FILE_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    PVOID Vpb;
    PVOID FsContext;
    PVOID FsContext2;
} FILE_OBJECT, *PFILE_OBJECT;

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            PIO_SECURITY_CONTEXT SecurityContext;
            ULONG Options;
            USHORT FileAttributes DECLSPEC_ALIGN(8);
            USHORT ShareAccess;
            ULONG EaLength DECLSPEC_ALIGN(8);
        } Create;
        struct {
            ULONG OutputBufferLength;
            ULONG InputBufferLength DECLSPEC_ALIGN(8);
            ULONG IoControlCode DECLSPEC_ALIGN(8);
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    PDEVICE_OBJECT DeviceObject;
    PFILE_OBJECT FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PVOID UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    PDRIVER_CANCEL volatile CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            PVOID DriverContext[4];
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            LIST_ENTRY ListEntry;
            PIO_STACK_LOCATION CurrentStackLocation;
            PFILE_OBJECT OriginalFileObject;
        } Overlay;
        PVOID Apc[11];
    } Tail;
} IRP;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PVOID DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    PDRIVER_OBJECT DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    PIRP CurrentIrp;
    PVOID Timer;
    ULONG Flags;
    ULONG Characteristics;
    PVOID Vpb;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CCHAR StackSize;
    PVOID Queue[9];
    ULONG AlignmentRequirement;
    PVOID DeviceQueue[5];
    KDPC Dpc;
    ULONG ActiveThreadCount;
    PVOID SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    PVOID DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT;

// Functions.

#include <kernel_functions.h>

#define DECLARE_KERNEL_FUNCTION(result, name, parameters, arguments) extern "C" result name parameters;
KERNEL_FUNCTIONS(DECLARE_KERNEL_FUNCTION)
#undef DECLARE_KERNEL_FUNCTION

extern "C" POBJECT_TYPE* PsThreadType;

// The kernel stops the machine on these; the bench stops the run with a report.
extern "C" DECLSPEC_NORETURN void KernelFastFail(ULONG code);
extern "C" DECLSPEC_NORETURN void KernelAssertionFailed(const char* condition, const char* file, int line);

#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
#define RtlFailFast(code) KernelFastFail(code)
#define NT_ASSERT(condition) ((condition) ? (void)0 : KernelAssertionFailed(#condition, __FILE__, __LINE__))
#define ASSERT(condition) NT_ASSERT(condition)
#define PAGED_CODE() NT_ASSERT(KeGetCurrentIrql() <= APC_LEVEL)

#define KeAcquireSpinLock(lock, oldIrql) (*(oldIrql) = KeAcquireSpinLockRaiseToDpc(lock))
#define ObDereferenceObject(object) ObfDereferenceObject(object)
#define ObReferenceObject(object) ObfReferenceObject(object)

#define RtlCopyMemory(destination, source, length) __builtin_memcpy(destination, source, length)
#define RtlMoveMemory(destination, source, length) __builtin_memmove(destination, source, length)
#define RtlFillMemory(destination, length, value) __builtin_memset(destination, value, length)
#define RtlZeroMemory(destination, length) __builtin_memset(destination, 0, length)
#define RtlEqualMemory(first, second, length) (__builtin_memcmp(first, second, length) == 0)

// The number of bytes that are equal before the first difference.
inline SIZE_T RtlCompareMemory(const VOID* first, const VOID* second, SIZE_T length) {
    SIZE_T equal = 0;
    while (equal < length && ((const UCHAR*)first)[equal] == ((const UCHAR*)second)[equal]) {
        equal++;
    }
    return equal;
}

inline PVOID MmGetSystemAddressForMdlSafe(PMDL mdl, ULONG priority) {
    if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
        return mdl->MappedSystemVa;
    }
    return MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, priority);
}

inline PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP irp) {
    return irp->Tail.Overlay.CurrentStackLocation;
}
inline PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP irp) {
    return irp->Tail.Overlay.CurrentStackLocation - 1;
}
inline VOID IoSkipCurrentIrpStackLocation(PIRP irp) {
    irp->CurrentLocation++;
    irp->Tail.Overlay.CurrentStackLocation++;
}

// Doubly linked lists.
// Every change checks the neighbours' links first, as the kernel's own helpers do.

inline VOID InitializeListHead(PLIST_ENTRY head) {
    head->Flink = head->Blink = head;
}

inline BOOLEAN IsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head;
}

inline BOOLEAN RemoveEntryList(PLIST_ENTRY entry) {
    PLIST_ENTRY next = entry->Flink;
    PLIST_ENTRY previous = entry->Blink;
    if (next->Blink != entry || previous->Flink != entry) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    previous->Flink = next;
    next->Blink = previous;
    return next == previous;
}

inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head) {
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY head) {
    PLIST_ENTRY entry = head->Blink;
    RemoveEntryList(entry);
    return entry;
}

inline VOID InsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    PLIST_ENTRY next = head->Flink;
    if (next->Blink != head) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    entry->Flink = next;
    entry->Blink = head;
    next->Blink = entry;
    head->Flink = entry;
}

inline VOID InsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry) {
    PLIST_ENTRY previous = head->Blink;
    if (previous->Flink != head) {
        RtlFailFast(FAST_FAIL_CORRUPT_LIST_ENTRY);
    }
    entry->Flink = head;
    entry->Blink = previous;
    previous->Flink = entry;
    head->Blink = entry;
}
