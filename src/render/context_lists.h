// The two lists of render contexts: AvailableList, of those that are free for a frame, and PendingList, of
// those that are filled and to be sent. The states that belong to them: render/send.h.
#pragma once

#include "device/device_context.h"

// Empty lists, no newest frame and no dispatch. When the pipeline is built.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_InitializeLists(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Render.PendingListLock);

// Takes the oldest available context, or null.
_IRQL_requires_max_(DISPATCH_LEVEL)
RENDER_CONTEXT* RENDER_TakeAvailable(DEVICE_CONTEXT* context);

_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_ReturnToAvailable(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext);

_IRQL_requires_max_(DISPATCH_LEVEL)
ULONG RENDER_CountAvailable(DEVICE_CONTEXT* context);

_IRQL_requires_(DISPATCH_LEVEL)
void RENDER_AppendPending(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext)
    TSA_REQUIRES(context->Render.PendingListLock);

// Takes the oldest pending context; the list is not empty. `*remaining`: how many are left.
_IRQL_requires_(DISPATCH_LEVEL)
RENDER_CONTEXT* RENDER_RemoveFirstPending(DEVICE_CONTEXT* context, _Out_ LONG* remaining)
    TSA_REQUIRES(context->Render.PendingListLock);

// Queues a filled context as the newest frame. FALSE, with the context still the caller's, when the pipeline
// was stopped meanwhile.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN RENDER_QueueFrame(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext)
    TSA_EXCLUDES(context->Render.PendingListLock);

// Returns everything on PendingList to AvailableList.
_IRQL_requires_(DISPATCH_LEVEL)
void RENDER_ClearPending(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock);

// Whether the newest frame of the running stream is in that render buffer.
_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN RENDER_IsNewestBuffer(DEVICE_CONTEXT* context, ULONG index)
    TSA_EXCLUDES(context->Render.PendingListLock);

// Whether a transfer may still read that render buffer, now or by being sent again.
_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN RENDER_IsBufferInUse(DEVICE_CONTEXT* context, ULONG index)
    TSA_EXCLUDES(context->Render.PendingListLock);
