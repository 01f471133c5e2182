// From a filled render buffer to USB transfers and back.
//
// A render context is in one of four places: on AvailableList, taken by the frame update, on PendingList, or
// in flight. It moves to PendingList only under PendingListLock and while RenderRunning is set, which changes
// under that lock, too: once a stop has cleared it, nothing is queued or dispatched any more.
#pragma once

#include "device/render_context.h"

// Takes and returns contexts that are free for a frame. Up to DISPATCH_LEVEL, also under PendingListLock.
RENDER_CONTEXT* RENDER_TakeAvailable(DEVICE_CONTEXT* context); // or null
void RENDER_ReturnToAvailable(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext);
ULONG RENDER_CountAvailable(DEVICE_CONTEXT* context);

// Makes both requests of a context ready to be sent. Neither of them is out. The caller holds
// PendingListLock.
[[nodiscard]] NTSTATUS RENDER_FormatRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext);

// Queues a filled context as the newest frame. FALSE, with the context still the caller's, when the pipeline
// was stopped meanwhile.
[[nodiscard]] BOOLEAN RENDER_QueueFrame(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext);

// Sends what is on PendingList, and the newest frame a second time when it would be alone in flight. Returns
// at once when another dispatch is running: that one finds the new work. Up to DISPATCH_LEVEL, no lock held.
void RENDER_DispatchPendingContexts(DEVICE_CONTEXT* context);

// Whether a transfer may still read that render buffer, now or by being sent again.
BOOLEAN RENDER_IsBufferInUse(DEVICE_CONTEXT* context, ULONG index);

// Returns everything on PendingList to AvailableList. After RenderRunning was cleared.
void RENDER_ClearPending(DEVICE_CONTEXT* context);

// Context: the RENDER_CONTEXT. Up to DISPATCH_LEVEL.
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_RenderRequestCompleted;
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_ZeroLengthRequestCompleted;

// All requests of the context have come back; `params` are those of the last one.
void RENDER_CompleteRenderContext(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                  PWDF_REQUEST_COMPLETION_PARAMS params);

// A request that was queued but not sent, for the reason `status`, is finished: it does not complete. Its
// context becomes available with the last of its requests and is not sent again.
void RENDER_AbandonRequest(DEVICE_CONTEXT* context, WDFREQUEST request, NTSTATUS status);

// Whether a request of the same context was abandoned since the context was queued: the rest of the frame is
// of no use to the adapter then.
BOOLEAN RENDER_IsFrameAbandoned(DEVICE_CONTEXT* context, WDFREQUEST request);
