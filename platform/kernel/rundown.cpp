// Run-down protection: an object stays usable while references to it are held, and its owner can wait until
// there are none. A reference counts 2; bit 0 says that the owner waits or has waited, and that no reference
// is given any more.

#include "platform/kernel/core.h"
#include "platform/kernel/lock_tracking.h"
#include "platform/kernel/ordering.h"
#include "platform/kernel/platform_call.h"
#include "platform/kernel/scheduler.h"
#include "platform/verifier/verifier.h"

#include <ntddk.h>

using namespace kernel;

namespace {

constexpr ULONG_PTR kRunDown = 1;
constexpr ULONG_PTR kReference = 2;

} // namespace

extern "C" {

VOID ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
    PlatformCall call;
    RunRef->Count = 0;
}

VOID ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
    PlatformCall call;
    verifier::requireIrql("ExReInitializeRundownProtection", kDispatchLevel);
    KernelGuard guard;
    if (RunRef->Count != kRunDown) {
        verifier::fail(verifier::Rule::Argument, "ExReInitializeRundownProtection", describeObject(RunRef),
                       "the protection was not run down");
    }
    RunRef->Count = 0;
}

BOOLEAN ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef) {
    PlatformCall call;
    verifier::requireIrql("ExAcquireRundownProtection", kDispatchLevel);
    KernelGuard guard;
    if ((RunRef->Count & kRunDown) != 0) {
        return FALSE;
    }
    RunRef->Count += kReference;
    return TRUE;
}

VOID ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef) {
    PlatformCall call;
    verifier::requireIrql("ExReleaseRundownProtection", kDispatchLevel);
    announceRelease(RunRef);
    {
        KernelGuard guard;
        if (RunRef->Count < kReference) {
            verifier::fail(verifier::Rule::Argument, "ExReleaseRundownProtection", describeObject(RunRef),
                           "released more often than acquired");
        }
        RunRef->Count -= kReference;
    }
    wakeChannel(RunRef);
}

VOID ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef) {
    PlatformCall call;
    verifier::requireIrql("ExWaitForRundownProtectionRelease", kApcLevel);
    waitUntil(RunRef, {"ExWaitForRundownProtectionRelease", RunRef, nullptr}, kForever, [RunRef] {
        KernelGuard guard;
        RunRef->Count |= kRunDown;
        return RunRef->Count == kRunDown;
    });
    announceAcquire(RunRef);
}

} // extern "C"
