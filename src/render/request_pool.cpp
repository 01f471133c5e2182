#include "render/request_pool.h"

#include "base/util.h"
#include "device/device_context.h"

namespace {

constexpr ULONG SEND_TIMEOUT_MS = 2000;
constexpr ULONG COMPLETION_POLL_MS = 100;
constexpr ULONG COMPLETION_POLL_COUNT = 31; // longer than SEND_TIMEOUT_MS

NTSTATUS AddRequest(REQUEST_LIST* list, WDFREQUEST request) {
    if (list->Lock.Handle == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    WDF_SPIN_LOCK_GUARD guard(list->Lock);
    return list->Requests != nullptr ? WdfCollectionAdd(list->Requests, request) : STATUS_UNSUCCESSFUL;
}

// By position, because the framework objects to the removal of an object that is not in the collection, and a
// request that was no longer tracked may still complete.
void RemoveRequest(REQUEST_LIST* list, WDFREQUEST request) {
    if (list->Lock.Handle == nullptr) {
        return;
    }
    WDF_SPIN_LOCK_GUARD guard(list->Lock);
    const ULONG count = list->Requests != nullptr ? WdfCollectionGetCount(list->Requests) : 0;
    for (ULONG i = 0; i < count; i++) {
        if (WdfCollectionGetItem(list->Requests, i) == request) {
            WdfCollectionRemoveItem(list->Requests, i);
            return;
        }
    }
}

WDFREQUEST TakeFirstRequest(REQUEST_LIST* list) {
    if (list->Lock.Handle == nullptr) {
        return nullptr;
    }
    WDF_SPIN_LOCK_GUARD guard(list->Lock);
    if (list->Requests == nullptr) {
        return nullptr;
    }
    const WDFOBJECT first = WdfCollectionGetFirstItem(list->Requests);
    if (first != nullptr) {
        WdfCollectionRemoveItem(list->Requests, 0);
    }
    return static_cast<WDFREQUEST>(first);
}

POLL_RESULT ProbeSentCompleted(DEVICE_CONTEXT* context) {
    return REQUEST_AllSentCompleted(context) ? POLL_RESULT::Done : POLL_RESULT::Again;
}

} // namespace

NTSTATUS REQUEST_QueueForSend(DEVICE_CONTEXT* context, WDFREQUEST request) {
    return AddRequest(&context->Render.SendQueue, request);
}

void REQUEST_RemoveFromSendQueue(DEVICE_CONTEXT* context, WDFREQUEST request) {
    RemoveRequest(&context->Render.SendQueue, request);
}

WDFREQUEST REQUEST_TakeNextToSend(DEVICE_CONTEXT* context) {
    return TakeFirstRequest(&context->Render.SendQueue);
}

BOOLEAN REQUEST_Send(DEVICE_CONTEXT* context, WDFREQUEST request, NTSTATUS* status) {
    WDF_REQUEST_SEND_OPTIONS options;
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0);
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, RelativeMs(SEND_TIMEOUT_MS));
    if (WdfRequestSend(request, context->Usb.UsbIoTarget, &options)) {
        return TRUE;
    }
    *status = WdfRequestGetStatus(request);
    return FALSE;
}

NTSTATUS REQUEST_TrackSent(DEVICE_CONTEXT* context, WDFREQUEST request) {
    return AddRequest(&context->Render.SentRequests, request);
}

void REQUEST_UntrackSent(DEVICE_CONTEXT* context, WDFREQUEST request) {
    RemoveRequest(&context->Render.SentRequests, request);
}

void REQUEST_DiscardSent(DEVICE_CONTEXT* context) {
    while (TakeFirstRequest(&context->Render.SentRequests) != nullptr) {
    }
}

BOOLEAN REQUEST_AllSentCompleted(DEVICE_CONTEXT* context) {
    REQUEST_LIST* list = &context->Render.SentRequests;
    if (list->Lock.Handle == nullptr) {
        return TRUE;
    }
    WDF_SPIN_LOCK_GUARD guard(list->Lock);
    return list->Requests == nullptr || WdfCollectionGetCount(list->Requests) == 0;
}

void REQUEST_WaitSentCompleted(DEVICE_CONTEXT* context) {
    (void)UTIL_Poll(COMPLETION_POLL_MS, COMPLETION_POLL_COUNT, ProbeSentCompleted, context);
}
