// The two collections of USB requests: formatted and not yet sent, sent and not yet completed. They refer to
// the render contexts' requests and never own them. Without their locks, before the pipeline is built and
// after it is gone, queueing fails and everything else does nothing.
//
// Up to DISPATCH_LEVEL except where noted. The locks are taken inside, one at a time.
#pragma once

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

[[nodiscard]] NTSTATUS REQUEST_QueueForSend(DEVICE_CONTEXT* context, WDFREQUEST request);
void REQUEST_RemoveFromSendQueue(DEVICE_CONTEXT* context, WDFREQUEST request);
WDFREQUEST REQUEST_TakeNextToSend(DEVICE_CONTEXT* context); // the oldest, or null

// Sends what is queued, oldest first. A request that the framework refuses is finished with its status, as if
// it had completed, and so is the rest of its frame. FALSE when that happened. Only the running dispatcher
// calls it.
BOOLEAN REQUEST_SendQueued(DEVICE_CONTEXT* context);

// FALSE: the request was refused, is not tracked and will not complete. *status then says why.
[[nodiscard]] BOOLEAN REQUEST_Send(DEVICE_CONTEXT* context, WDFREQUEST request, NTSTATUS* status);

[[nodiscard]] NTSTATUS REQUEST_TrackSent(DEVICE_CONTEXT* context, WDFREQUEST request);
void REQUEST_UntrackSent(DEVICE_CONTEXT* context, WDFREQUEST request); // no effect when it is not tracked

// Finishes what is queued without sending it, so that its contexts become available.
void REQUEST_DiscardQueued(DEVICE_CONTEXT* context);

// Stops tracking what has not come back. Those requests still complete and bring their contexts home.
void REQUEST_DiscardSent(DEVICE_CONTEXT* context);

BOOLEAN REQUEST_AllSentCompleted(DEVICE_CONTEXT* context);

// Waits until everything sent has completed, at most 3.1 seconds. PASSIVE_LEVEL.
void REQUEST_WaitSentCompleted(DEVICE_CONTEXT* context);
