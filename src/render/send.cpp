#include "render/send.h"

#include "device/device_context.h"
#include "render/request_pool.h"
#include "render/timers.h"

namespace {

// Two transfers are in flight, so a dispatch sends one or two contexts. One that finds more and more work
// runs on a bus that completes inside the send; what is left after this many goes to the frame update thread,
// for it may be running at DISPATCH_LEVEL.
constexpr ULONG DISPATCH_LIMIT = 2 * RENDER_CONTEXT_COUNT;

static_assert(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER) == 0x80);

RENDER_CONTEXT* FromLink(LIST_ENTRY* link) {
    return CONTAINING_RECORD(link, RENDER_CONTEXT, Link);
}

struct BULK_TRANSFER {
    WDFREQUEST Request;
    _URB_BULK_OR_INTERRUPT_TRANSFER* Urb;
    WDFMEMORY UrbMemory;
    PMDL Mdl;
    ULONG Length;
    PFN_WDF_REQUEST_COMPLETION_ROUTINE Completed;
};

NTSTATUS FormatTransfer(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                        const BULK_TRANSFER& transfer) {
    WDF_REQUEST_REUSE_PARAMS reuse;
    WDF_REQUEST_REUSE_PARAMS_INIT(&reuse, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_SUCCESS);
    NTSTATUS status = WdfRequestReuse(transfer.Request, &reuse);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    _URB_BULK_OR_INTERRUPT_TRANSFER* urb = transfer.Urb;
    urb->Hdr.Length = sizeof(*urb);
    urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb->PipeHandle = context->Usb.BulkOutPipeHandle;
    urb->TransferFlags = USBD_TRANSFER_DIRECTION_OUT;
    urb->TransferBufferLength = transfer.Length;
    urb->TransferBuffer = nullptr;
    urb->TransferBufferMDL = transfer.Mdl;
    urb->UrbLink = nullptr;
    status = WdfUsbTargetDeviceFormatRequestForUrb(context->Usb.UsbDevice, transfer.Request,
                                                   transfer.UrbMemory, nullptr);
    if (NT_SUCCESS(status)) {
        WdfRequestSetCompletionRoutine(transfer.Request, transfer.Completed, renderContext);
    }
    return status;
}

void AppendPending(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext)
    TSA_REQUIRES(context->Render.PendingListLock) {
    InsertTailList(&context->Render.PendingList, &renderContext->Link);
    InterlockedIncrement(&context->Render.PendingCount);
}

RENDER_CONTEXT* RemoveFirstPending(DEVICE_CONTEXT* context, LONG* remaining)
    TSA_REQUIRES(context->Render.PendingListLock) {
    RENDER_CONTEXT* renderContext = FromLink(RemoveHeadList(&context->Render.PendingList));
    InitializeListHead(&renderContext->Link);
    *remaining = InterlockedDecrement(&context->Render.PendingCount);
    return renderContext;
}

// Formats the requests of a context and queues them for sending; on failure none is queued.
NTSTATUS QueueRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext)
    TSA_REQUIRES(context->Render.PendingListLock) {
    renderContext->TransferLength = context->Render.RenderBufferLength[renderContext->RenderBufferIndex];
    renderContext->Abandoned = FALSE;
    NTSTATUS status = RENDER_FormatRequests(context, renderContext);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = REQUEST_QueueForSend(context, renderContext->RenderRequest);
    if (!NT_SUCCESS(status)) {
        return status;
    }
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

// In the same critical section that saw nothing to do: what is queued later finds nobody dispatching.
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

// The newest frame follows the only transfer in flight, so that the pipe does not run dry.
void TopUp(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    if (SHARED_Read(context->DeviceRemoved)) {
        return;
    }
    RENDER_CONTEXT* second = RENDER_TakeAvailable(context);
    if (second != nullptr) {
        second->RenderBufferIndex = context->Render.LatestRenderBufferIndex;
        AppendPending(context, second);
    }
}

// No completion will keep the stream going, and a client with nothing to redraw would be left with the
// picture before. Under the lock and while the context at hand is not returned, a stop cannot have passed by
// and deleted the timer behind this.
void RepeatLater(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    if (context->Render.RenderRunning != 0 && !SHARED_Read(context->DeviceRemoved)) {
        RENDER_RepeatFrameLater(context);
    }
}

// Moves the next context to send off PendingList and queues its requests. FALSE when there is none, or when
// the dispatch has to end.
BOOLEAN QueueNextTransfer(DEVICE_CONTEXT* context, DISPATCH* dispatch)
    TSA_REQUIRES(context->Render.PendingListLock) {
    const LIST_ENTRY* pendingList = &context->Render.PendingList;
    if (context->Render.RenderRunning == 0) {
        return FALSE;
    }
    if (dispatch->IsAlone && !dispatch->Refused && IsListEmpty(pendingList)) {
        TopUp(context);
    }
    if (IsListEmpty(pendingList)) {
        return FALSE;
    }
    if (dispatch->Sent == DISPATCH_LIMIT) {
        KeSetEvent(&context->Render.DispatchRequestEvent, EVENT_INCREMENT, FALSE);
        return FALSE;
    }
    LONG remaining;
    RENDER_CONTEXT* renderContext = RemoveFirstPending(context, &remaining);
    if (!NT_SUCCESS(QueueRequests(context, renderContext))) {
        RENDER_ReturnToAvailable(context, renderContext);
        dispatch->Refused = TRUE;
        return FALSE;
    }
    dispatch->Sent++;
    dispatch->IsAlone = InterlockedIncrement(&context->Render.RenderContextsInFlight) == 1 && remaining == 0;
    return TRUE;
}

BOOLEAN PrepareNextTransfer(DEVICE_CONTEXT* context, DISPATCH* dispatch) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (QueueNextTransfer(context, dispatch)) {
        return TRUE;
    }
    if (dispatch->Refused && ReadAcquire(&context->Render.RenderContextsInFlight) == 0) {
        RepeatLater(context);
    }
    EndDispatch(context);
    return FALSE;
}

RENDER_CONTEXT* FindOwner(DEVICE_CONTEXT* context, WDFREQUEST request) {
    for (RENDER_CONTEXT* renderContext : context->Render.RenderContexts) {
        if (renderContext != nullptr &&
            (renderContext->RenderRequest == request || renderContext->ZeroLengthRequest == request)) {
            return renderContext;
        }
    }
    return nullptr;
}

BOOLEAN IsDeviceGone(NTSTATUS status, USBD_STATUS usbdStatus) {
    return status == STATUS_DEVICE_NOT_CONNECTED || status == STATUS_NO_SUCH_DEVICE ||
           usbdStatus == USBD_STATUS_DEVICE_GONE || usbdStatus == USBD_STATUS_ENDPOINT_HALTED;
}

// No frame gets through any more: register access and commands are refused, and the thread ends.
void GiveUpDevice(DEVICE_CONTEXT* context) {
    SHARED_Write(context->DeviceRemoved, TRUE);
    KeResetEvent(&context->Render.ThreadStartStopEvent);
    KeSetEvent(&context->Render.ThreadStartStopEvent, IO_NO_INCREMENT, FALSE);
}

// Decides what a context does after its transfer. TRUE when something waits to be dispatched.
BOOLEAN ContinueStream(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext, LONG inFlight) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.RenderRunning == 0) {
        RENDER_ReturnToAvailable(context, renderContext);
        return FALSE;
    }
    const BOOLEAN newerFrameWaits = !IsListEmpty(&context->Render.PendingList);
    const ULONG latest = context->Render.LatestRenderBufferIndex;
    const BOOLEAN carriesLatest = renderContext->RenderBufferIndex == latest;
    // Two transfers of the newest frame are enough; of the older ones, the last but one takes it over.
    // Without a newest frame the context comes from before a stop, and what it carries must not be seen
    // again.
    const BOOLEAN goesOn = carriesLatest || (inFlight == 1 && latest != RENDER_BUFFER_NONE);
    if (newerFrameWaits || renderContext->Abandoned || !goesOn) {
        // The newest frame may have been refused while this transfer, of an older one, was still out.
        const BOOLEAN nothingIsOut = ReadAcquire(&context->Render.RenderContextsInFlight) == 0;
        if (!newerFrameWaits && nothingIsOut && latest != RENDER_BUFFER_NONE) {
            RepeatLater(context);
        }
        RENDER_ReturnToAvailable(context, renderContext);
        return newerFrameWaits;
    }
    renderContext->RenderBufferIndex = latest;
    AppendPending(context, renderContext);
    return TRUE;
}

// All requests of the context are back. The context belongs to somebody else once it was returned or queued.
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

void CompleteRequest(WDFREQUEST request, PWDF_REQUEST_COMPLETION_PARAMS params,
                     RENDER_CONTEXT* renderContext) {
    DEVICE_CONTEXT* context = renderContext->DeviceContext;
    REQUEST_UntrackSent(context, request);
    if (InterlockedDecrement(&renderContext->OutstandingRequests) == 0) {
        RENDER_CompleteRenderContext(context, renderContext, params);
    }
}

} // namespace

RENDER_CONTEXT* RENDER_TakeAvailable(DEVICE_CONTEXT* context) {
    RENDER_CONTEXT* renderContext;
    {
        SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
        if (IsListEmpty(&context->Render.AvailableList)) {
            return nullptr;
        }
        renderContext = FromLink(RemoveHeadList(&context->Render.AvailableList));
    }
    InterlockedDecrement(&context->Render.AvailableCount);
    InitializeListHead(&renderContext->Link);
    return renderContext;
}

void RENDER_ReturnToAvailable(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    {
        SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
        InsertTailList(&context->Render.AvailableList, &renderContext->Link);
    }
    InterlockedIncrement(&context->Render.AvailableCount);
}

ULONG RENDER_CountAvailable(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
    ULONG count = 0;
    const LIST_ENTRY* head = &context->Render.AvailableList;
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        count++;
    }
    return count;
}

NTSTATUS RENDER_FormatRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    const BULK_TRANSFER render = {.Request = renderContext->RenderRequest,
                                  .Urb = &renderContext->RenderUrb,
                                  .UrbMemory = renderContext->RenderUrbMemory,
                                  .Mdl = renderContext->RenderMdl[renderContext->RenderBufferIndex],
                                  .Length = renderContext->TransferLength,
                                  .Completed = RENDER_RenderRequestCompleted};
    if (render.Mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES; // The last preparation of the render buffers failed.
    }
    const NTSTATUS status = FormatTransfer(context, renderContext, render);
    if (!NT_SUCCESS(status) || context->Display.Mode.ZeroLengthFlag != 1) {
        return status;
    }
    const BULK_TRANSFER zeroLength = {.Request = renderContext->ZeroLengthRequest,
                                      .Urb = &renderContext->ZeroLengthUrb,
                                      .UrbMemory = renderContext->ZeroLengthUrbMemory,
                                      .Mdl = nullptr,
                                      .Length = 0,
                                      .Completed = RENDER_ZeroLengthRequestCompleted};
    return FormatTransfer(context, renderContext, zeroLength);
}

BOOLEAN RENDER_QueueFrame(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.RenderRunning == 0) {
        return FALSE;
    }
    context->Render.LatestRenderBufferIndex = renderContext->RenderBufferIndex;
    AppendPending(context, renderContext);
    return TRUE;
}

// The requests are sent without PendingListLock, because a completion that runs inside the send wants it. In
// its place Dispatching keeps two dispatches from mixing their frames on the pipe: whoever finds it set, be
// it such a completion or another processor, leaves its work on PendingList, which the running dispatch looks
// at again before it ends.
void RENDER_DispatchPendingContexts(DEVICE_CONTEXT* context) {
    if (!BeginDispatch(context)) {
        return;
    }
    DISPATCH dispatch = {.Sent = 0, .IsAlone = FALSE, .Refused = FALSE};
    while (PrepareNextTransfer(context, &dispatch)) {
        if (!REQUEST_SendQueued(context)) {
            dispatch.Refused = TRUE;
        }
    }
}

BOOLEAN RENDER_IsBufferInUse(DEVICE_CONTEXT* context, ULONG index) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.LatestRenderBufferIndex == index) {
        return TRUE;
    }
    const LIST_ENTRY* head = &context->Render.PendingList;
    for (LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        if (FromLink(link)->RenderBufferIndex == index) {
            return TRUE;
        }
    }
    for (const RENDER_CONTEXT* renderContext : context->Render.RenderContexts) {
        if (renderContext->RenderBufferIndex == index &&
            ReadAcquire(&renderContext->OutstandingRequests) != 0) {
            return TRUE;
        }
    }
    return FALSE;
}

void RENDER_ClearPending(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    while (!IsListEmpty(&context->Render.PendingList)) {
        LONG remaining;
        RENDER_ReturnToAvailable(context, RemoveFirstPending(context, &remaining));
    }
}

void RENDER_RenderRequestCompleted(WDFREQUEST request, WDFIOTARGET, PWDF_REQUEST_COMPLETION_PARAMS params,
                                   WDFCONTEXT completionContext) {
    RENDER_CONTEXT* renderContext = static_cast<RENDER_CONTEXT*>(completionContext);
    RENDER_DecayFrameErrorBucket(renderContext->DeviceContext);
    InterlockedIncrement(&renderContext->DeviceContext->Render.CompletedTransfers);
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

void RENDER_AbandonRequest(DEVICE_CONTEXT* context, WDFREQUEST request, NTSTATUS status) {
    RENDER_CONTEXT* renderContext = FindOwner(context, request);
    if (renderContext == nullptr) {
        return;
    }
    // Sending it again at once would only be refused again, for ever.
    renderContext->Abandoned = TRUE;
    if (InterlockedDecrement(&renderContext->OutstandingRequests) == 0) {
        FinishContext(context, renderContext, status, USBD_STATUS_SUCCESS);
    }
}

BOOLEAN RENDER_IsFrameAbandoned(DEVICE_CONTEXT* context, WDFREQUEST request) {
    const RENDER_CONTEXT* renderContext = FindOwner(context, request);
    return renderContext == nullptr || renderContext->Abandoned;
}
