#include "render/request_pool.h"

#include "device/device_context.h"
#include "render/send.h"

namespace {

constexpr ULONG SEND_TIMEOUT_MS = 2000;
constexpr ULONG COMPLETION_POLL_MS = 100;
constexpr ULONG COMPLETION_POLL_COUNT = 31; // a little longer than the time-out of what is waited for

NTSTATUS AddRequest(WDFSPINLOCK lock, WDFCOLLECTION collection, WDFREQUEST request) {
    if (lock == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    WDF_SPIN_LOCK_GUARD guard(lock);
    return collection != nullptr ? WdfCollectionAdd(collection, request) : STATUS_UNSUCCESSFUL;
}

// By position, because the framework objects to the removal of an object that is not in the collection, and a
// request that was no longer tracked may still complete.
void RemoveRequest(WDFSPINLOCK lock, WDFCOLLECTION collection, WDFREQUEST request) {
    if (lock == nullptr || collection == nullptr) {
        return;
    }
    WDF_SPIN_LOCK_GUARD guard(lock);
    const ULONG count = WdfCollectionGetCount(collection);
    for (ULONG i = 0; i < count; i++) {
        if (WdfCollectionGetItem(collection, i) == request) {
            WdfCollectionRemoveItem(collection, i);
            return;
        }
    }
}

WDFREQUEST TakeFirstRequest(WDFSPINLOCK lock, WDFCOLLECTION collection) {
    if (lock == nullptr || collection == nullptr) {
        return nullptr;
    }
    WDF_SPIN_LOCK_GUARD guard(lock);
    const WDFOBJECT first = WdfCollectionGetFirstItem(collection);
    if (first != nullptr) {
        WdfCollectionRemoveItem(collection, 0);
    }
    return static_cast<WDFREQUEST>(first);
}

POLL_RESULT ProbeSentCompleted(DEVICE_CONTEXT* context) {
    return REQUEST_AllSentCompleted(context) ? POLL_RESULT::Done : POLL_RESULT::Again;
}

} // namespace

NTSTATUS REQUEST_QueueForSend(DEVICE_CONTEXT* context, WDFREQUEST request) {
    return AddRequest(context->Render.SendQueueLock, context->Render.SendQueue, request);
}

void REQUEST_RemoveFromSendQueue(DEVICE_CONTEXT* context, WDFREQUEST request) {
    RemoveRequest(context->Render.SendQueueLock, context->Render.SendQueue, request);
}

WDFREQUEST REQUEST_TakeNextToSend(DEVICE_CONTEXT* context) {
    return TakeFirstRequest(context->Render.SendQueueLock, context->Render.SendQueue);
}

BOOLEAN REQUEST_SendQueued(DEVICE_CONTEXT* context) {
    BOOLEAN allSent = TRUE;
    for (;;) {
        const WDFREQUEST request = REQUEST_TakeNextToSend(context);
        if (request == nullptr) {
            return allSent;
        }
        NTSTATUS status = STATUS_CANCELLED;
        if (RENDER_IsFrameAbandoned(context, request) || !REQUEST_Send(context, request, &status)) {
            RENDER_AbandonRequest(context, request, status);
            allSent = FALSE;
        }
    }
}

BOOLEAN REQUEST_Send(DEVICE_CONTEXT* context, WDFREQUEST request, NTSTATUS* status) {
    // Tracked first: the completion may run before the send returns.
    *status = REQUEST_TrackSent(context, request);
    if (!NT_SUCCESS(*status)) {
        return FALSE;
    }
    WDF_REQUEST_SEND_OPTIONS options;
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0);
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, RelativeMs(SEND_TIMEOUT_MS));
    if (WdfRequestSend(request, context->Usb.UsbIoTarget, &options)) {
        return TRUE;
    }
    *status = WdfRequestGetStatus(request);
    REQUEST_UntrackSent(context, request);
    return FALSE;
}

NTSTATUS REQUEST_TrackSent(DEVICE_CONTEXT* context, WDFREQUEST request) {
    return AddRequest(context->Render.SentRequestsLock, context->Render.SentRequests, request);
}

void REQUEST_UntrackSent(DEVICE_CONTEXT* context, WDFREQUEST request) {
    RemoveRequest(context->Render.SentRequestsLock, context->Render.SentRequests, request);
}

void REQUEST_DiscardQueued(DEVICE_CONTEXT* context) {
    for (;;) {
        const WDFREQUEST request = REQUEST_TakeNextToSend(context);
        if (request == nullptr) {
            return;
        }
        RENDER_AbandonRequest(context, request, STATUS_CANCELLED);
    }
}

void REQUEST_DiscardSent(DEVICE_CONTEXT* context) {
    while (TakeFirstRequest(context->Render.SentRequestsLock, context->Render.SentRequests) != nullptr) {
    }
}

BOOLEAN REQUEST_AllSentCompleted(DEVICE_CONTEXT* context) {
    if (context->Render.SentRequestsLock == nullptr || context->Render.SentRequests == nullptr) {
        return TRUE;
    }
    WDF_SPIN_LOCK_GUARD guard(context->Render.SentRequestsLock);
    return WdfCollectionGetCount(context->Render.SentRequests) == 0;
}

void REQUEST_WaitSentCompleted(DEVICE_CONTEXT* context) {
    (void)UTIL_Poll(COMPLETION_POLL_MS, COMPLETION_POLL_COUNT, ProbeSentCompleted, context);
}
