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

    // True when the timer was running already; it runs anew in either case. A stop that waits keeps the timer
    // from being started.
    bool start(const Call& call, LONGLONG dueTime) {
        LARGE_INTEGER due;
        due.QuadPart = dueTime;
        const bool was = cancelTimer();
        switch (arm(kernel::deadlineOf(&due), Origin::Driver)) {
        case Arming::Done:
            return was;
        case Arming::Stopping:
            return false;
        case Arming::Deleting:
            break;
        }
        call.fail(Rule::CallbackObject, this, "The timer is started while it is being deleted.");
    }

    // True when the timer was running, or when the stop kept it from being started.
    bool stop(const Call& call, bool wait) {
        if (!wait) {
            return cancelTimer();
        }
        bool another = false;
        {
            KernelGuard guard;
            another = std::exchange(stopping_, true);
            startRefused_ = false;
        }
        if (another) {
            call.fail(Rule::CallbackObject, this, "Another stop waits for this timer already.");
        }
        const bool was = cancelTimer();
        waitForCallbacks(call.name(), OwnEnd::Deadlock);
        KernelGuard guard;
        stopping_ = false;
        return was || startRefused_;
    }

  protected:
    void dispose() override {
        cancelTimer();
        waitForCallbacks("WdfObjectDelete", OwnEnd::Deadlock);
    }
    bool disposeWaits() const override { return true; }

  private:
    enum class Origin : std::uint8_t { Driver, Period };
    enum class Arming : std::uint8_t { Done, Stopping, Deleting };

    Arming arm(kernel::Time due, Origin origin) {
        // The reference belongs to the armed timer: `fired` or a successful cancellation gives it back.
        reference();
        Arming result = Arming::Done;
        {
            KernelGuard guard;
            if (deletingLocked()) {
                result = Arming::Deleting;
            } else if (stopping_) {
                result = Arming::Stopping;
                startRefused_ |= origin == Origin::Driver;
            } else {
                due_ = due;
                timer_ = kernel::startTimer(due, [this] { fired(); });
                expectLocked();
            }
        }
        if (result != Arming::Done) {
            release();
        }
        return result;
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
                (void)arm(next, Origin::Period);
            }
        }
        if (!passive_) {
            run();
            return;
        }
        // Expiries that come while the callback waits for its worker are one.
        bool coalesced = false;
        {
            KernelGuard guard;
            coalesced = std::exchange(queued_, true);
        }
        if (coalesced) {
            noLongerExpected();
            return;
        }
        reference();
        kernel::queueWork("timer", [this] {
            const auto self = Ref<Timer>::adopt(this);
            {
                KernelGuard guard;
                queued_ = false;
            }
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
    bool queued_ = false;       // for a worker, and its callback has not begun
    bool stopping_ = false;     // a stop waits
    bool startRefused_ = false; // since that stop began
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
    if (Config->EvtTimerFunc == nullptr || Config->Period > MAXLONG) {
        return STATUS_INVALID_PARAMETER;
    }
    const framework::CreationRules rules{.parentRequired = true, .levelAllowed = true};
    Ref<framework::Object> parent;
    NTSTATUS status = checkAttributes(call, Attributes, rules, nullptr, parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    requireDeviceAbove(call, *parent);
    // The level of the parent does not count.
    const bool passive = Attributes->ExecutionLevel == WdfExecutionLevelPassive;
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
    return call.object<framework::Timer>(Timer)->start(call, DueTime);
}

BOOLEAN WdfTimerStop(WDFTIMER Timer, BOOLEAN Wait) {
    Call call("WdfTimerStop", Wait ? kPassiveLevel : kDispatchLevel);
    return call.object<framework::Timer>(Timer)->stop(call, Wait != FALSE);
}

WDFOBJECT WdfTimerGetParentObject(WDFTIMER Timer) {
    Call call("WdfTimerGetParentObject", kDispatchLevel);
    return call.object<framework::Timer>(Timer)->parent()->handle();
}
