// The kernel lock, which guards every record of the platform that several tasks can touch. Not recursive;
// held for a few instructions, never across a call out of the platform.
//
// Under `sim` it costs nothing; under `free` it is a lock that ThreadSanitizer does not see.
#pragma once

namespace kernel {

// The lock of the current machine's scheduler.
class KernelLock {
  public:
    virtual void lock() = 0;
    virtual void unlock() = 0;

  protected:
    ~KernelLock() = default;
};

// Null between machines, when a guard only notes that it is there.
void setKernelLock(KernelLock* lock);

class KernelGuard {
  public:
    KernelGuard();
    ~KernelGuard();
    KernelGuard(const KernelGuard&) = delete;
    KernelGuard& operator=(const KernelGuard&) = delete;
};

// Takes the kernel lock unless the calling thread already has it.
class KernelLockIfFree {
  public:
    KernelLockIfFree();
    ~KernelLockIfFree();
    KernelLockIfFree(const KernelLockIfFree&) = delete;
    KernelLockIfFree& operator=(const KernelLockIfFree&) = delete;

  private:
    bool taken_;
};

// Whether the calling thread holds the kernel lock.
bool kernelLockHeld();

} // namespace kernel
