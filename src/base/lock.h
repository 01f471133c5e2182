// The locks of the driver and the scoped guards that take them.
#pragma once

#include "base/annotations.h"

#include <wdf.h>

constexpr ULONG MUTEX_WAIT_SLICE_MS = 1000;

struct TSA_CAPABILITY("mutex") DEVICE_MUTEX {
    KMUTEX Mutex;
};

struct TSA_CAPABILITY("spin lock") DEVICE_SPIN_LOCK {
    KSPIN_LOCK Lock;
};

// A framework spin lock. Null before its owner creates it and after its owner deleted it.
struct TSA_CAPABILITY("framework spin lock") DEVICE_WDF_SPIN_LOCK {
    WDFSPINLOCK Handle;
};

// At any IRQL, before any other code can use the lock.
void SPINLOCK_Initialize(_Out_ DEVICE_SPIN_LOCK* lock);
void MUTEX_Initialize(_Out_ DEVICE_MUTEX* mutex);

// Waits in slices of `waitSliceMs` until the mutex is held. Its owner may take it again.
_IRQL_requires_(PASSIVE_LEVEL)
void MUTEX_Acquire(DEVICE_MUTEX* mutex, ULONG waitSliceMs) TSA_ACQUIRE(*mutex);
_IRQL_requires_(PASSIVE_LEVEL)
void MUTEX_Release(DEVICE_MUTEX* mutex) TSA_RELEASE(*mutex);

class TSA_SCOPED MUTEX_GUARD {
  public:
    _IRQL_requires_(PASSIVE_LEVEL)
    explicit MUTEX_GUARD(DEVICE_MUTEX& mutex) TSA_ACQUIRE(mutex) : Mutex(mutex) {
        MUTEX_Acquire(&Mutex, MUTEX_WAIT_SLICE_MS);
    }
    _IRQL_requires_(PASSIVE_LEVEL)
    ~MUTEX_GUARD() TSA_RELEASE() { MUTEX_Release(&Mutex); }
    MUTEX_GUARD(const MUTEX_GUARD&) = delete;
    MUTEX_GUARD& operator=(const MUTEX_GUARD&) = delete;

  private:
    DEVICE_MUTEX& Mutex;
};

// Executive spin lock: raises to DISPATCH_LEVEL until it is released. It cannot be taken again by its owner.
class TSA_SCOPED SPIN_LOCK_GUARD {
  public:
    _IRQL_requires_max_(DISPATCH_LEVEL)
    explicit SPIN_LOCK_GUARD(DEVICE_SPIN_LOCK& lock) TSA_ACQUIRE(lock) : Lock(lock) {
        KeAcquireSpinLock(&Lock.Lock, &OldIrql);
    }
    ~SPIN_LOCK_GUARD() TSA_RELEASE() { KeReleaseSpinLock(&Lock.Lock, OldIrql); }
    SPIN_LOCK_GUARD(const SPIN_LOCK_GUARD&) = delete;
    SPIN_LOCK_GUARD& operator=(const SPIN_LOCK_GUARD&) = delete;

  private:
    DEVICE_SPIN_LOCK& Lock;
    KIRQL OldIrql;
};

// Framework spin lock: raises to DISPATCH_LEVEL until it is released. It cannot be taken again by its owner.
class TSA_SCOPED WDF_SPIN_LOCK_GUARD {
  public:
    _IRQL_requires_max_(DISPATCH_LEVEL)
    explicit WDF_SPIN_LOCK_GUARD(DEVICE_WDF_SPIN_LOCK& lock) TSA_ACQUIRE(lock) : Lock(lock) {
        WdfSpinLockAcquire(Lock.Handle);
    }
    ~WDF_SPIN_LOCK_GUARD() TSA_RELEASE() { WdfSpinLockRelease(Lock.Handle); }
    WDF_SPIN_LOCK_GUARD(const WDF_SPIN_LOCK_GUARD&) = delete;
    WDF_SPIN_LOCK_GUARD& operator=(const WDF_SPIN_LOCK_GUARD&) = delete;

  private:
    DEVICE_WDF_SPIN_LOCK& Lock;
};
