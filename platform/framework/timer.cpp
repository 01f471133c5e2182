// Timers: one-shot or periodic, their callback at DISPATCH_LEVEL or, with execution level passive, on a
// worker.
#include "platform/framework/callback_source.h"
#include "platform/framework/device.h"
#include "platform/framework/driver.h"
#include "platform/kernel/dispatcher.h"

namespace framework {

using kernel::callDriver;
using kernel::KernelGuard;

class Timer final : public CallbackSource {
  public:
    Timer(const WDF_TIMER_CONFIG& config, bool passive)
        : CallbackSource(Kind::Timer), config_(config), passive_(passive) {}

    WDFTIMER wdf() const { return static_cast<WDFTIMER>(handle()); }

    // True when the timer was running already; it runs anew in either case.
    bool start(LONGLONG dueTime) {
        LARGE_INTEGER due;
        due.QuadPart = dueTime;
        const bool was = cancelTimer();
        arm(kernel::deadlineOf(&due));
        return was;
    }

    bool stop(const Call& call, bool wait) {
        const bool was = cancelTimer();
        if (wait) {
            // A callback under way may start its timer again: like the framework, stop it until it remains
            // stopped.
            waitForCallbacks(call.name(), false, [this] { cancelTimer(); });
        }
        return was;
    }

  protected:
    void dispose() override {
        cancelTimer();
        // Nothing starts a timer that is being deleted.
        waitForCallbacks("WdfObjectDelete", true);
    }
    bool disposeWaits() const override { return true; }

  private:
    void arm(kernel::Time due) {
        // The reference belongs to the armed timer: `fired` or a successful cancellation gives it back.
        reference();
        bool armed = false;
        {
            KernelGuard guard;
            if (!deletingLocked()) {
                due_ = due;
                timer_ = kernel::startTimer(due, [this] { fired(); });
                expectLocked();
                armed = true;
            }
        }
        if (!armed) {
            release();
        }
    }

    // False when the timer was not armed or its DPC is queued already; that one still runs, as on Windows.
    bool cancelTimer() {
        kernel::TimerId timer = 0;
        {
            KernelGuard guard;
            timer = std::exchange(timer_, 0);
        }
        if (timer == 0 || !kernel::cancelTimer(timer)) {
            return false;
        }
        noLongerExpected();
        release();
        return true;
    }

    void fired() {
        const auto held = Ref<Timer>::adopt(this);
        if (config_.Period != 0) {
            kernel::Time next = 0;
            bool stopped = false;
            {
                KernelGuard guard;
                stopped = timer_ == 0;
                next = kernel::atTick(due_ + static_cast<kernel::Time>(config_.Period) * base::kMillisecond);
            }
            if (!stopped) {
                arm(next);
            }
        }
        if (!passive_) {
            run();
            return;
        }
        reference();
        kernel::queueWork("timer", [this] {
            const auto self = Ref<Timer>::adopt(this);
            run();
        });
    }

    void run() {
        enter();
        callDriver("EvtTimerFunc", config_.EvtTimerFunc, wdf());
        leave();
    }

    const WDF_TIMER_CONFIG config_;
    const bool passive_;

    // Guarded by the kernel lock.
    kernel::TimerId timer_ = 0; // the one armed last; 0 once stopped
    kernel::Time due_ = 0;
};

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

NTSTATUS WdfTimerCreate(PWDF_TIMER_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes, WDFTIMER* Timer) {
    Call call("WdfTimerCreate", kDispatchLevel);
    if (Timer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Timer = nullptr;
    if (Config->Size != sizeof(WDF_TIMER_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (Config->EvtTimerFunc == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const framework::CreationRules rules{.parentRequired = true, .levelAllowed = true};
    Ref<framework::Object> parent;
    NTSTATUS status = checkAttributes(call, Attributes, rules, nullptr, parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    requireDeviceAbove(call, *parent);
    const WDF_EXECUTION_LEVEL level = Attributes->ExecutionLevel;
    const bool passive =
        level == WdfExecutionLevelPassive ||
        (level == WdfExecutionLevelInheritFromParent && parent->executionLevel() == WdfExecutionLevelPassive);
    // The framework refuses a periodic timer whose callback runs on a worker.
    if (passive && Config->Period != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    Ref<framework::Timer> timer;
    status = createObject(call, Attributes, rules, nullptr, timer,
                          [&](framework::Object*) { return new framework::Timer(*Config, passive); });
    if (NT_SUCCESS(status)) {
        *Timer = timer->wdf();
    }
    return status;
}

BOOLEAN WdfTimerStart(WDFTIMER Timer, LONGLONG DueTime) {
    Call call("WdfTimerStart", kDispatchLevel);
    return call.object<framework::Timer>(Timer)->start(DueTime);
}

BOOLEAN WdfTimerStop(WDFTIMER Timer, BOOLEAN Wait) {
    Call call("WdfTimerStop", Wait ? kPassiveLevel : kDispatchLevel);
    return call.object<framework::Timer>(Timer)->stop(call, Wait != FALSE);
}

WDFOBJECT WdfTimerGetParentObject(WDFTIMER Timer) {
    Call call("WdfTimerGetParentObject", kDispatchLevel);
    return call.object<framework::Timer>(Timer)->parent()->handle();
}
