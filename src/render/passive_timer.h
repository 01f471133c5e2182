// A framework timer of the device whose function runs at PASSIVE_LEVEL.
#pragma once

#include "device/device_context.h"

// `attributes` carries the type of the timer's context; execution level and parent are added. On failure
// *timer is null.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS TIMER_Create(DEVICE_CONTEXT* context, PFN_WDF_TIMER function,
                                    _Inout_ WDF_OBJECT_ATTRIBUTES* attributes, _Out_ WDFTIMER* timer);

// Waits for a running callback. Nothing happens when *timer is null.
_IRQL_requires_(PASSIVE_LEVEL)
void TIMER_Delete(_Inout_ WDFTIMER* timer);
