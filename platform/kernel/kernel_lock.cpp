#include "platform/kernel/kernel_lock.h"

namespace kernel {

namespace {

// Written by the thread that creates and destroys the scheduler, while no task runs.
KernelLock* machineLock = nullptr;

thread_local bool threadHoldsKernelLock __attribute__((tls_model("initial-exec"))) = false;

void acquire() {
    if (machineLock != nullptr) {
        machineLock->lock();
    }
    threadHoldsKernelLock = true;
}

void release() {
    threadHoldsKernelLock = false;
    if (machineLock != nullptr) {
        machineLock->unlock();
    }
}

} // namespace

void setKernelLock(KernelLock* lock) {
    machineLock = lock;
}

KernelGuard::KernelGuard() {
    acquire();
}

KernelGuard::~KernelGuard() {
    release();
}

KernelLockIfFree::KernelLockIfFree() : taken_(!threadHoldsKernelLock) {
    if (taken_) {
        acquire();
    }
}

KernelLockIfFree::~KernelLockIfFree() {
    if (taken_) {
        release();
    }
}

bool kernelLockHeld() {
    return threadHoldsKernelLock;
}

} // namespace kernel
