// Framework spin locks and wait locks.
#include "platform/framework/driver.h"
#include "platform/framework/object.h"
#include "platform/kernel/dispatcher.h"
#include "platform/kernel/lock_tracking.h"

namespace framework {

class SpinLock final : public Object {
  public:
    SpinLock() : Object(Kind::SpinLock) {}
    ~SpinLock() override { kernel::lockDestroyed(&lock_, "WdfObjectDelete"); }

    void take(const Call& call) {
        const KIRQL old = kernel::acquireSpinLock(lock_, call.name());
        oldIrql_ = old;
    }

    void giveBack(const Call& call) {
        const KIRQL old = oldIrql_;
        kernel::releaseSpinLock(lock_, old, call.name());
    }

  private:
    KSPIN_LOCK lock_ = 0;
    KIRQL oldIrql_ = 0; // guarded by the lock itself
};

class WaitLock final : public Object {
  public:
    WaitLock() : Object(Kind::WaitLock) {}
    ~WaitLock() override { kernel::lockDestroyed(this, "WdfObjectDelete"); }

    // False at the deadline.
    bool take(const Call& call, kernel::Time deadline) {
        kernel::Task* self = &kernel::currentTask();
        if (ownedBy(self)) {
            call.fail(Rule::LockRecursion, this, "The wait lock is taken twice by one thread.");
        }
        kernel::lockAcquiring(this, verifier::LockKind::Mutex, name(), call.name());
        const auto tryTake = [this, self] {
            kernel::KernelGuard guard;
            if (owner_ == nullptr) {
                owner_ = self;
            }
            return owner_ == self;
        };
        // The owner in the reason is that of the moment; it serves deadlock reports.
        const bool taken =
            tryTake() ||
            (deadline != 0 && kernel::waitUntil(this, {call.name(), this, owner()}, deadline, tryTake));
        if (taken) {
            kernel::announceAcquire(this);
            kernel::lockAcquired(this, verifier::LockKind::Mutex);
        }
        return taken;
    }

    void giveBack(const Call& call) {
        if (!ownedBy(&kernel::currentTask())) {
            call.fail(Rule::LockOwner, this, "The wait lock is released by a thread that does not hold it.");
        }
        kernel::lockReleased(this, call.name());
        {
            kernel::KernelGuard guard;
            owner_ = nullptr;
        }
        kernel::wakeChannel(this);
    }

  private:
    kernel::Task* owner() const {
        kernel::KernelGuard guard;
        return owner_;
    }
    bool ownedBy(const kernel::Task* task) const { return owner() == task; }

    kernel::Task* owner_ = nullptr; // guarded by the kernel lock
};

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

NTSTATUS WdfSpinLockCreate(PWDF_OBJECT_ATTRIBUTES SpinLockAttributes, WDFSPINLOCK* SpinLock) {
    Call call("WdfSpinLockCreate", kDispatchLevel);
    if (SpinLock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *SpinLock = nullptr;
    Ref<framework::SpinLock> lock;
    const NTSTATUS status = createObject(call, SpinLockAttributes, {}, &requireDriver(call), lock,
                                         [](framework::Object*) { return new framework::SpinLock(); });
    if (NT_SUCCESS(status)) {
        *SpinLock = static_cast<WDFSPINLOCK>(lock->handle());
    }
    return status;
}

VOID WdfSpinLockAcquire(WDFSPINLOCK SpinLock) {
    Call call("WdfSpinLockAcquire", kDispatchLevel);
    call.object<framework::SpinLock>(SpinLock)->take(call);
}

VOID WdfSpinLockRelease(WDFSPINLOCK SpinLock) {
    Call call("WdfSpinLockRelease", kDispatchLevel);
    call.object<framework::SpinLock>(SpinLock)->giveBack(call);
}

NTSTATUS WdfWaitLockCreate(PWDF_OBJECT_ATTRIBUTES LockAttributes, WDFWAITLOCK* Lock) {
    Call call("WdfWaitLockCreate", kDispatchLevel);
    if (Lock == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Lock = nullptr;
    Ref<framework::WaitLock> lock;
    const NTSTATUS status = createObject(call, LockAttributes, {}, &requireDriver(call), lock,
                                         [](framework::Object*) { return new framework::WaitLock(); });
    if (NT_SUCCESS(status)) {
        *Lock = static_cast<WDFWAITLOCK>(lock->handle());
    }
    return status;
}

NTSTATUS WdfWaitLockAcquire(WDFWAITLOCK Lock, PLONGLONG Timeout) {
    const bool poll = Timeout != nullptr && *Timeout == 0;
    Call call("WdfWaitLockAcquire", poll ? kDispatchLevel : kPassiveLevel);
    kernel::Time deadline = 0;
    if (!poll) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = Timeout != nullptr ? *Timeout : 0;
        deadline = kernel::deadlineOf(Timeout != nullptr ? &timeout : nullptr);
    }
    return call.object<framework::WaitLock>(Lock)->take(call, deadline) ? STATUS_SUCCESS : STATUS_TIMEOUT;
}

VOID WdfWaitLockRelease(WDFWAITLOCK Lock) {
    Call call("WdfWaitLockRelease", kDispatchLevel);
    call.object<framework::WaitLock>(Lock)->giveBack(call);
}
