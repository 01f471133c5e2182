#include "base/lock.h"
#include "base/util.h"

void SPINLOCK_Initialize(DEVICE_SPIN_LOCK* lock) {
    KeInitializeSpinLock(&lock->Lock);
}

void MUTEX_Initialize(DEVICE_MUTEX* mutex) {
    KeInitializeMutex(&mutex->Mutex, 0);
}

TSA_NO_ANALYSIS void MUTEX_Acquire(DEVICE_MUTEX* mutex, ULONG waitSliceMs) {
    LARGE_INTEGER slice;
    slice.QuadPart = RelativeMs(waitSliceMs);
    while (KeWaitForSingleObject(&mutex->Mutex, Executive, KernelMode, FALSE, &slice) == STATUS_TIMEOUT) {
    }
}

TSA_NO_ANALYSIS void MUTEX_Release(DEVICE_MUTEX* mutex) {
    KeReleaseMutex(&mutex->Mutex, FALSE);
}
