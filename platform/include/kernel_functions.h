// The kernel's functions that the driver imports: result, name, parameters, argument names. The prototypes
// come from this list; a loader of the Windows image generates its import thunks from it.
#pragma once

#define KERNEL_FUNCTIONS(X)                                                                                  \
    X(PVOID, ExAllocatePoolWithTag, (POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag),                   \
      (PoolType, NumberOfBytes, Tag))                                                                        \
    X(VOID, ExFreePoolWithTag, (PVOID P, ULONG Tag), (P, Tag))                                               \
    X(VOID, ExInitializeRundownProtection, (PEX_RUNDOWN_REF RunRef), (RunRef))                               \
    X(VOID, ExReInitializeRundownProtection, (PEX_RUNDOWN_REF RunRef), (RunRef))                             \
    X(BOOLEAN, ExAcquireRundownProtection, (PEX_RUNDOWN_REF RunRef), (RunRef))                               \
    X(VOID, ExReleaseRundownProtection, (PEX_RUNDOWN_REF RunRef), (RunRef))                                  \
    X(VOID, ExWaitForRundownProtectionRelease, (PEX_RUNDOWN_REF RunRef), (RunRef))                           \
    X(VOID, KeInitializeSpinLock, (PKSPIN_LOCK SpinLock), (SpinLock))                                        \
    X(KIRQL, KeAcquireSpinLockRaiseToDpc, (PKSPIN_LOCK SpinLock), (SpinLock))                                \
    X(VOID, KeReleaseSpinLock, (PKSPIN_LOCK SpinLock, KIRQL NewIrql), (SpinLock, NewIrql))                   \
    X(VOID, KeAcquireSpinLockAtDpcLevel, (PKSPIN_LOCK SpinLock), (SpinLock))                                 \
    X(VOID, KeReleaseSpinLockFromDpcLevel, (PKSPIN_LOCK SpinLock), (SpinLock))                               \
    X(VOID, KeInitializeEvent, (PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State), (Event, Type, State))       \
    X(LONG, KeSetEvent, (PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait), (Event, Increment, Wait))       \
    X(VOID, KeClearEvent, (PRKEVENT Event), (Event))                                                         \
    X(LONG, KeResetEvent, (PRKEVENT Event), (Event))                                                         \
    X(LONG, KeReadStateEvent, (PRKEVENT Event), (Event))                                                     \
    X(VOID, KeInitializeMutex, (PRKMUTEX Mutex, ULONG Level), (Mutex, Level))                                \
    X(LONG, KeReleaseMutex, (PRKMUTEX Mutex, BOOLEAN Wait), (Mutex, Wait))                                   \
    X(NTSTATUS, KeWaitForSingleObject,                                                                       \
      (PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,                   \
       PLARGE_INTEGER Timeout),                                                                              \
      (Object, WaitReason, WaitMode, Alertable, Timeout))                                                    \
    X(NTSTATUS, KeWaitForMultipleObjects,                                                                    \
      (ULONG Count, PVOID * Object, WAIT_TYPE WaitType, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,   \
       BOOLEAN Alertable, PLARGE_INTEGER Timeout, PKWAIT_BLOCK WaitBlockArray),                              \
      (Count, Object, WaitType, WaitReason, WaitMode, Alertable, Timeout, WaitBlockArray))                   \
    X(NTSTATUS, KeDelayExecutionThread,                                                                      \
      (KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval),                                \
      (WaitMode, Alertable, Interval))                                                                       \
    X(KIRQL, KeGetCurrentIrql, (), ())                                                                       \
    X(PKTHREAD, KeGetCurrentThread, (), ())                                                                  \
    X(NTSTATUS, PsCreateSystemThread,                                                                        \
      (PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle, \
       PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine, PVOID StartContext),                               \
      (ThreadHandle, DesiredAccess, ObjectAttributes, ProcessHandle, ClientId, StartRoutine, StartContext))  \
    X(NTSTATUS, PsTerminateSystemThread, (NTSTATUS ExitStatus), (ExitStatus))                                \
    X(NTSTATUS, ObReferenceObjectByHandle,                                                                   \
      (HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,        \
       PVOID * Object, POBJECT_HANDLE_INFORMATION HandleInformation),                                        \
      (Handle, DesiredAccess, ObjectType, AccessMode, Object, HandleInformation))                            \
    X(LONG_PTR, ObfReferenceObject, (PVOID Object), (Object))                                                \
    X(LONG_PTR, ObfDereferenceObject, (PVOID Object), (Object))                                              \
    X(NTSTATUS, ZwClose, (HANDLE Handle), (Handle))                                                          \
    X(NTSTATUS, ZwWaitForSingleObject, (HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout),           \
      (Handle, Alertable, Timeout))                                                                          \
    X(PMDL, IoAllocateMdl,                                                                                   \
      (PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp),          \
      (VirtualAddress, Length, SecondaryBuffer, ChargeQuota, Irp))                                           \
    X(VOID, IoFreeMdl, (PMDL Mdl), (Mdl))                                                                    \
    X(VOID, MmBuildMdlForNonPagedPool, (PMDL Mdl), (Mdl))                                                    \
    X(PVOID, MmMapLockedPagesSpecifyCache,                                                                   \
      (PMDL Mdl, KPROCESSOR_MODE AccessMode, MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,          \
       ULONG BugCheckOnFailure, ULONG Priority),                                                             \
      (Mdl, AccessMode, CacheType, RequestedAddress, BugCheckOnFailure, Priority))                           \
    X(NTSTATUS, IoRegisterDeviceInterface,                                                                   \
      (PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID * InterfaceClassGuid,                                 \
       PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName),                                   \
      (PhysicalDeviceObject, InterfaceClassGuid, ReferenceString, SymbolicLinkName))                         \
    X(NTSTATUS, IoSetDeviceInterfaceState, (PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable),               \
      (SymbolicLinkName, Enable))                                                                            \
    X(VOID, RtlInitUnicodeString, (PUNICODE_STRING DestinationString, PCWSTR SourceString),                  \
      (DestinationString, SourceString))                                                                     \
    X(VOID, RtlFreeUnicodeString, (PUNICODE_STRING UnicodeString), (UnicodeString))                          \
    X(NTSTATUS, RtlGetVersion, (PRTL_OSVERSIONINFOW VersionInformation), (VersionInformation))
