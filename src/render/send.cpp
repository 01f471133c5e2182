#include "render/send.h"

#include "base/shared_field.h"
#include "render/auto_update.h"
#include "render/bulk_transfer.h"
#include "render/context_lists.h"
#include "render/drop_frames.h"
#include "render/request_pool.h"

namespace {

// Two transfers are in flight, so a dispatch usually sends one or two contexts. It finds more and more work
// only on a bus that completes inside the send. After this many, the frame update thread continues, because
// the dispatch may be running at DISPATCH_LEVEL.
constexpr ULONG DISPATCH_LIMIT = 2 * RENDER_CONTEXT_COUNT;

// Formats the requests of a context and queues them for sending; on failure none is queued.
NTSTATUS QueueRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext)
    TSA_REQUIRES(context->Render.PendingListLock) {
    renderContext->TransferLength = context->Render.RenderBufferLength[renderContext->RenderBufferIndex];
    NTSTATUS status = RENDER_FormatRequests(context, renderContext, RENDER_RenderRequestCompleted,
                                            RENDER_ZeroLengthRequestCompleted);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = REQUEST_QueueForSend(context, renderContext->RenderRequest);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    SHARED_Write(renderContext->State, FRAME_IN_FLIGHT);
    InterlockedIncrement(&renderContext->OutstandingRequests);
    if (context->Display.Mode.ZeroLengthFlag != 1) {
        return STATUS_SUCCESS;
    }
    status = REQUEST_QueueForSend(context, renderContext->ZeroLengthRequest);
    if (!NT_SUCCESS(status)) {
        REQUEST_RemoveFromSendQueue(context, renderContext->RenderRequest);
        InterlockedDecrement(&renderContext->OutstandingRequests);
        return status;
    }
    InterlockedIncrement(&renderContext->OutstandingRequests);
    return STATUS_SUCCESS;
}

// Takes the open frame over and queues its zero-length request; on failure the frame stays open.
RENDER_CONTEXT* QueueFrameEnd(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    RENDER_CONTEXT* renderContext = context->Render.OpenFrame;
    if (!NT_SUCCESS(RENDER_FormatZeroLength(context, renderContext, RENDER_ZeroLengthRequestCompleted)) ||
        !NT_SUCCESS(REQUEST_QueueForSend(context, renderContext->ZeroLengthRequest))) {
        return nullptr;
    }
    context->Render.OpenFrame = nullptr;
    SHARED_Write(renderContext->State, FRAME_IN_FLIGHT);
    return renderContext;
}

// FALSE while another dispatch is running.
BOOLEAN BeginDispatch(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.Dispatching) {
        return FALSE;
    }
    context->Render.Dispatching = TRUE;
    KeClearEvent(&context->Render.DispatchIdleEvent);
    return TRUE;
}

// In the same critical section that found nothing to do: work that is queued later finds no dispatch running.
void EndDispatch(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    context->Render.Dispatching = FALSE;
    KeSetEvent(&context->Render.DispatchIdleEvent, IO_NO_INCREMENT, FALSE);
}

// One dispatch, from BeginDispatch to EndDispatch.
struct DISPATCH {
    ULONG Sent;
    BOOLEAN IsAlone; // the context sent last is the only one in flight
    BOOLEAN Refused; // a request could not be sent; a second transfer would be refused, too
};

// The newest frame follows the only transfer in flight, so that the pipe always has one to continue with.
void AppendNewestFrame(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    if (SHARED_Read(context->DeviceRemoved)) {
        return;
    }
    RENDER_CONTEXT* second = RENDER_TakeAvailable(context);
    if (second != nullptr) {
        second->RenderBufferIndex = context->Render.LatestRenderBufferIndex;
        RENDER_AppendPending(context, second);
    }
}

// No completion will continue the stream, and a client that has nothing to redraw would keep showing an older
// picture. The timer exists as long as RenderRunning is set, which cannot change here.
void RepeatLater(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    if (context->Render.RenderRunning != 0 && !SHARED_Read(context->DeviceRemoved)) {
        RENDER_RepeatFrameLater(context);
    }
}

// Moves the next context to send off PendingList and queues its requests. Null when there is none, or when
// the dispatch has to end.
RENDER_CONTEXT* QueueNextTransfer(DEVICE_CONTEXT* context, DISPATCH* dispatch)
    TSA_REQUIRES(context->Render.PendingListLock) {
    const LIST_ENTRY* pendingList = &context->Render.PendingList;
    if (context->Render.RenderRunning == 0) {
        return nullptr;
    }
    if (context->Render.OpenFrame != nullptr) {
        RENDER_CONTEXT* open = dispatch->Refused ? nullptr : QueueFrameEnd(context);
        dispatch->Refused = open == nullptr;
        return open;
    }
    if (dispatch->IsAlone && !dispatch->Refused && IsListEmpty(pendingList)) {
        AppendNewestFrame(context);
    }
    if (IsListEmpty(pendingList)) {
        return nullptr;
    }
    if (dispatch->Sent == DISPATCH_LIMIT) {
        KeSetEvent(&context->Render.DispatchRequestEvent, EVENT_INCREMENT, FALSE);
        return nullptr;
    }
    LONG remaining;
    RENDER_CONTEXT* renderContext = RENDER_RemoveFirstPending(context, &remaining);
    if (!NT_SUCCESS(QueueRequests(context, renderContext))) {
        RENDER_ReturnToAvailable(context, renderContext);
        dispatch->Refused = TRUE;
        return nullptr;
    }
    dispatch->Sent++;
    dispatch->IsAlone = InterlockedIncrement(&context->Render.RenderContextsInFlight) == 1 && remaining == 0;
    return renderContext;
}

// Null after the end of the dispatch.
RENDER_CONTEXT* PrepareNextTransfer(DEVICE_CONTEXT* context, DISPATCH* dispatch) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    RENDER_CONTEXT* renderContext = QueueNextTransfer(context, dispatch);
    if (renderContext != nullptr) {
        return renderContext;
    }
    if (context->Render.OpenFrame != nullptr) {
        // Nothing may be sent before the end of that frame, and contexts that wait for it would be missing
        // when the frame is repeated.
        RENDER_ClearPending(context);
        RepeatLater(context);
    } else if (dispatch->Refused && ReadAcquire(&context->Render.RenderContextsInFlight) == 0) {
        RepeatLater(context);
    }
    EndDispatch(context);
    return nullptr;
}

BOOLEAN IsDeviceGone(NTSTATUS status, USBD_STATUS usbdStatus) {
    return status == STATUS_DEVICE_NOT_CONNECTED || status == STATUS_NO_SUCH_DEVICE ||
           usbdStatus == USBD_STATUS_DEVICE_GONE || usbdStatus == USBD_STATUS_ENDPOINT_HALTED;
}

// No frame reaches the adapter any more: register access and commands are refused, and the thread ends.
void GiveUpDevice(DEVICE_CONTEXT* context) {
    DEVICE_MarkRemoved(context);
    KeResetEvent(&context->Render.ThreadStartStopEvent);
    KeSetEvent(&context->Render.ThreadStartStopEvent, IO_NO_INCREMENT, FALSE);
}

// What becomes of a context when all its requests are done.
enum class NEXT_STEP {
    Return,
    ReturnForNewerFrame,
    ReturnAndRepeatLater,
    SendNewest,
};

NEXT_STEP ChooseNextStep(DEVICE_CONTEXT* context, const RENDER_CONTEXT* renderContext, LONG inFlight)
    TSA_REQUIRES(context->Render.PendingListLock) {
    if (context->Render.RenderRunning == 0) {
        return NEXT_STEP::Return;
    }
    if (!IsListEmpty(&context->Render.PendingList)) {
        return NEXT_STEP::ReturnForNewerFrame;
    }
    const ULONG latest = context->Render.LatestRenderBufferIndex;
    if (latest == RENDER_BUFFER_NONE) {
        // The context carries a frame from before the last stop, which must not be shown again.
        return NEXT_STEP::Return;
    }
    const BOOLEAN wasRefused = SHARED_Read(renderContext->State) == FRAME_REFUSED;
    const BOOLEAN carriesNewest = renderContext->RenderBufferIndex == latest;
    if (!wasRefused && (carriesNewest || inFlight == 1)) {
        return NEXT_STEP::SendNewest;
    }
    // The newest frame may have been refused while this transfer, of an older one, was still in flight.
    const BOOLEAN nothingInFlight = ReadAcquire(&context->Render.RenderContextsInFlight) == 0;
    return nothingInFlight ? NEXT_STEP::ReturnAndRepeatLater : NEXT_STEP::Return;
}

// TRUE when something waits to be dispatched. The context belongs to another task once it was returned or
// queued.
BOOLEAN ContinueStream(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext, LONG inFlight) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    const NEXT_STEP next = ChooseNextStep(context, renderContext, inFlight);
    if (next == NEXT_STEP::SendNewest) {
        renderContext->RenderBufferIndex = context->Render.LatestRenderBufferIndex;
        RENDER_AppendPending(context, renderContext);
        return TRUE;
    }
    if (next == NEXT_STEP::ReturnAndRepeatLater) {
        RepeatLater(context);
    }
    RENDER_ReturnToAvailable(context, renderContext);
    return next == NEXT_STEP::ReturnForNewerFrame;
}

// All requests of the context are done.
void FinishContext(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext, NTSTATUS status,
                   USBD_STATUS usbdStatus) {
    const LONG inFlight = InterlockedDecrement(&context->Render.RenderContextsInFlight);
    if (IsDeviceGone(status, usbdStatus)) {
        GiveUpDevice(context);
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    if (ContinueStream(context, renderContext, inFlight)) {
        RENDER_DispatchPendingContexts(context);
    }
}

// A request that was queued but not sent does not complete: it is done now. The adapter cannot use the rest
// of its frame, and the frame would be refused again if it was sent again at once.
void RefuseRequest(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext, NTSTATUS status) {
    SHARED_Write(renderContext->State, FRAME_REFUSED);
    if (InterlockedDecrement(&renderContext->OutstandingRequests) == 0) {
        FinishContext(context, renderContext, status, USBD_STATUS_SUCCESS);
    }
}

// The frame was sent without its end. The adapter would take the next frame for its continuation.
void KeepOpen(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    SHARED_Write(renderContext->State, FRAME_OPEN);
    context->Render.OpenFrame = renderContext;
}

// The requests of one context, in the order in which they are sent.
struct QUEUED_REQUESTS {
    WDFREQUEST Request[2];
    ULONG Count;
};

// Takes the queued requests and tracks them. Each before the first is sent: its completion may run inside the
// send, and no frame is begun whose end cannot be tracked.
NTSTATUS TrackQueued(DEVICE_CONTEXT* context, QUEUED_REQUESTS* queued) {
    NTSTATUS status = STATUS_SUCCESS;
    queued->Count = 0;
    for (WDFREQUEST& request : queued->Request) {
        request = REQUEST_TakeNextToSend(context);
        if (request == nullptr) {
            break;
        }
        queued->Count++;
        if (NT_SUCCESS(status)) {
            status = REQUEST_TrackSent(context, request);
        }
    }
    return status;
}

// Sends the requests that a dispatch queued, oldest first: those of one context. FALSE when one was refused.
BOOLEAN SendQueued(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    QUEUED_REQUESTS queued;
    NTSTATUS status = TrackQueued(context, &queued);
    BOOLEAN refused = !NT_SUCCESS(status);
    BOOLEAN frameIsSent = queued.Request[0] == renderContext->ZeroLengthRequest;
    for (ULONG i = 0; i < queued.Count; i++) {
        const WDFREQUEST request = queued.Request[i];
        if (!refused && REQUEST_Send(context, request, &status)) {
            frameIsSent = TRUE;
            continue;
        }
        refused = TRUE;
        REQUEST_UntrackSent(context, request);
        if (frameIsSent && !IsDeviceGone(status, USBD_STATUS_SUCCESS)) {
            KeepOpen(context, renderContext);
        } else {
            RefuseRequest(context, renderContext, status);
        }
    }
    return !refused;
}

void CompleteRequest(WDFREQUEST request, PWDF_REQUEST_COMPLETION_PARAMS params,
                     RENDER_CONTEXT* renderContext) {
    DEVICE_CONTEXT* context = renderContext->DeviceContext;
    REQUEST_UntrackSent(context, request);
    if (InterlockedDecrement(&renderContext->OutstandingRequests) == 0) {
        RENDER_CompleteRenderContext(context, renderContext, params);
    }
}

} // namespace

// The requests are sent without PendingListLock, because a completion that runs inside the send acquires it.
// In its place Dispatching keeps two dispatches from mixing their frames on the pipe: a completion or another
// processor that finds it set leaves its work on PendingList, which the running dispatch looks at again
// before it ends.
void RENDER_DispatchPendingContexts(DEVICE_CONTEXT* context) {
    if (!BeginDispatch(context)) {
        return;
    }
    DISPATCH dispatch = {.Sent = 0, .IsAlone = FALSE, .Refused = FALSE};
    for (;;) {
        RENDER_CONTEXT* renderContext = PrepareNextTransfer(context, &dispatch);
        if (renderContext == nullptr) {
            return;
        }
        if (!SendQueued(context, renderContext)) {
            dispatch.Refused = TRUE;
        }
    }
}

void RENDER_EmptyQueue(DEVICE_CONTEXT* context) {
    RENDER_CONTEXT* open;
    {
        SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
        RENDER_ClearPending(context);
        open = context->Render.OpenFrame;
        context->Render.OpenFrame = nullptr;
    }
    if (open != nullptr) {
        RefuseRequest(context, open, STATUS_CANCELLED);
    }
}

void RENDER_RenderRequestCompleted(WDFREQUEST request, WDFIOTARGET, PWDF_REQUEST_COMPLETION_PARAMS params,
                                   WDFCONTEXT completionContext) {
    RENDER_CONTEXT* renderContext = static_cast<RENDER_CONTEXT*>(completionContext);
    RENDER_DecayFrameErrorBucket(renderContext->DeviceContext);
    CompleteRequest(request, params, renderContext);
}

void RENDER_ZeroLengthRequestCompleted(WDFREQUEST request, WDFIOTARGET, PWDF_REQUEST_COMPLETION_PARAMS params,
                                       WDFCONTEXT completionContext) {
    CompleteRequest(request, params, static_cast<RENDER_CONTEXT*>(completionContext));
}

void RENDER_CompleteRenderContext(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                  PWDF_REQUEST_COMPLETION_PARAMS params) {
    const BOOLEAN hasUsbStatus =
        params->Type == WdfRequestTypeUsb && params->Parameters.Usb.Completion != nullptr;
    FinishContext(context, renderContext, params->IoStatus.Status,
                  hasUsbStatus ? params->Parameters.Usb.Completion->UsbdStatus : USBD_STATUS_SUCCESS);
}
