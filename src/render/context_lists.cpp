#include "render/context_lists.h"

#include "base/shared_field.h"

namespace {

RENDER_CONTEXT* FromLink(LIST_ENTRY* link) {
    return CONTAINING_RECORD(link, RENDER_CONTEXT, Link);
}

void SetState(RENDER_CONTEXT* renderContext, RENDER_CONTEXT_STATE state) {
    SHARED_Write(renderContext->State, state);
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
        SetState(renderContext, FRAME_TAKEN);
    }
    InterlockedDecrement(&context->Render.AvailableCount);
    InitializeListHead(&renderContext->Link);
    return renderContext;
}

void RENDER_ReturnToAvailable(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    {
        SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
        SetState(renderContext, FRAME_CLEARED);
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

void RENDER_AppendPending(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    SetState(renderContext, FRAME_UPDATED);
    InsertTailList(&context->Render.PendingList, &renderContext->Link);
    InterlockedIncrement(&context->Render.PendingCount);
}

RENDER_CONTEXT* RENDER_RemoveFirstPending(DEVICE_CONTEXT* context, LONG* remaining) {
    RENDER_CONTEXT* renderContext = FromLink(RemoveHeadList(&context->Render.PendingList));
    InitializeListHead(&renderContext->Link);
    *remaining = InterlockedDecrement(&context->Render.PendingCount);
    return renderContext;
}

BOOLEAN RENDER_QueueFrame(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.RenderRunning == 0) {
        return FALSE;
    }
    context->Render.LatestRenderBufferIndex = renderContext->RenderBufferIndex;
    RENDER_AppendPending(context, renderContext);
    return TRUE;
}

void RENDER_ClearPending(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    while (!IsListEmpty(&context->Render.PendingList)) {
        LONG remaining;
        RENDER_ReturnToAvailable(context, RENDER_RemoveFirstPending(context, &remaining));
    }
}

// Contexts enter and leave the states that count here under PendingListLock, except when the device is gone.
BOOLEAN RENDER_IsBufferInUse(DEVICE_CONTEXT* context, ULONG index) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.LatestRenderBufferIndex == index) {
        return TRUE;
    }
    for (const RENDER_CONTEXT* renderContext : context->Render.RenderContexts) {
        const ULONG state = SHARED_Read(renderContext->State);
        if (renderContext->RenderBufferIndex == index && state != FRAME_CLEARED && state != FRAME_TAKEN) {
            return TRUE;
        }
    }
    return FALSE;
}
