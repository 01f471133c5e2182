#include "platform/kernel/fault_points.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/kernel_lock.h"
#include "platform/kernel/platform_call.h"
#include "platform/verifier/verifier.h"

#include <fmt/format.h>

namespace kernel {

namespace {

// Guarded by the kernel lock.
struct Faults {
    std::uint64_t armed = 0; // 0: none
    FaultMode mode = FaultMode::Once;
    NTSTATUS refusal = STATUS_INSUFFICIENT_RESOURCES;
    std::uint64_t reached = 0;
    bool fired = false;
    FaultKind kind = FaultKind::Allocation; // of the point that fired
    std::string call;                       // of the point that fired
    std::string description;
};
base::MachinePart<Faults> faults;

} // namespace

void armFault(std::uint64_t k, FaultMode mode, NTSTATUS refusal) {
    KernelLockIfFree guard;
    *faults = Faults();
    faults->armed = k;
    faults->mode = mode;
    faults->refusal = refusal;
}

void disarmFault() {
    KernelLockIfFree guard;
    faults->armed = 0;
}

std::uint64_t faultPointsReached() {
    KernelLockIfFree guard;
    return faults->reached;
}

bool faultFired() {
    KernelLockIfFree guard;
    return faults->fired;
}

std::string faultedCall() {
    KernelLockIfFree guard;
    return faults->call;
}

std::string faultDescription() {
    KernelLockIfFree guard;
    return faults->description;
}

NTSTATUS faultRefusal() {
    KernelLockIfFree guard;
    return faults->refusal;
}

bool faultPoint(FaultKind kind, std::string_view what) {
    KernelLockIfFree guard;
    faults->reached++;
    if (faults->armed == 0) {
        return false;
    }
    if (faults->fired) {
        return faults->mode == FaultMode::Sticky && kind == faults->kind;
    }
    if (faults->reached != faults->armed) {
        return false;
    }
    faults->fired = true;
    faults->kind = kind;
    faults->call = what;
    const char* callback = currentCallback();
    faults->description = fmt::format("{} {}: {}{}{}", kFaultKindNames[static_cast<std::size_t>(kind)],
                                      faults->reached, what, *callback != 0 ? " in " : "", callback);
    return true;
}

} // namespace kernel
