// The two collections of USB requests: formatted and not yet sent, sent and not yet completed. Before the
// pipeline is built and after it was torn down, queueing, tracking and sending fail and everything else does
// nothing. The locks are taken inside, one at a time.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS REQUEST_QueueForSend(DEVICE_CONTEXT* context, WDFREQUEST request);
_IRQL_requires_max_(DISPATCH_LEVEL)
void REQUEST_RemoveFromSendQueue(DEVICE_CONTEXT* context, WDFREQUEST request);

// The oldest, or null.
_IRQL_requires_max_(DISPATCH_LEVEL)
WDFREQUEST REQUEST_TakeNextToSend(DEVICE_CONTEXT* context);

// Sends a tracked request, with a time-out of two seconds. FALSE: the request was refused and will not
// complete; `*status` says why. The caller then untracks it.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN REQUEST_Send(DEVICE_CONTEXT* context, WDFREQUEST request, _Out_ NTSTATUS* status);

_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS REQUEST_TrackSent(DEVICE_CONTEXT* context, WDFREQUEST request);
_IRQL_requires_max_(DISPATCH_LEVEL)
void REQUEST_UntrackSent(DEVICE_CONTEXT* context, WDFREQUEST request); // no effect when it is not tracked

// Stops tracking what has not completed. Those requests still complete and return their contexts to
// AvailableList.
_IRQL_requires_max_(DISPATCH_LEVEL)
void REQUEST_DiscardSent(DEVICE_CONTEXT* context);

_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN REQUEST_AllSentCompleted(DEVICE_CONTEXT* context);

// Waits until everything sent has completed, at most 3.4 seconds.
_IRQL_requires_(PASSIVE_LEVEL)
void REQUEST_WaitSentCompleted(DEVICE_CONTEXT* context);
