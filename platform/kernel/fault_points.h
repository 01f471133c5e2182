// Places where a resource may be refused. Every allocation, object creation, registry access, target start
// and transfer calls `faultPoint` first; a test arms the k-th of them and runs its scenario.
#pragma once

#include <ntddk.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kernel {

enum class FaultKind : std::uint8_t { Allocation, Creation, Registry, TargetStart, Transfer };
constexpr std::array<std::string_view, 5> kFaultKindNames = {"allocation", "creation", "registry",
                                                             "target start", "transfer"};

enum class FaultMode : std::uint8_t {
    Once,   // the k-th point fails, later ones work
    Sticky, // the k-th point and all of its kind after it fail
};

// Counts points from zero again and makes the k-th (from 1) fail; 0 arms nothing but still counts. A send of
// a request is refused with that status.
void armFault(std::uint64_t k, FaultMode mode, NTSTATUS refusal = STATUS_INSUFFICIENT_RESOURCES);
void disarmFault();

// How many points were reached since arming, whether the armed one was, and what it was: the call that
// failed, and a text with kind, number and callback.
std::uint64_t faultPointsReached();
bool faultFired();
std::string faultedCall();
std::string faultDescription();
NTSTATUS faultRefusal();

// True when the caller is to fail now. `what` names the call ("ExAllocatePoolWithTag").
bool faultPoint(FaultKind kind, std::string_view what);

} // namespace kernel
