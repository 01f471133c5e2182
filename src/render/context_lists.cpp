#include "render/context_lists.h"

#include "base/shared_field.h"

namespace {

RENDER_CONTEXT* FromLink(LIST_ENTRY* link) {
    return CONTAINING_RECORD(link, RENDER_CONTEXT, Link);
}

// The lists go through these, because the analysis does not check where the address of a guarded field is
// taken.
LIST_ENTRY* AvailableList(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.AvailableListLock) {
    return &context->Render.AvailableList;
}

LIST_ENTRY* PendingList(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    return &context->Render.PendingList;
}

void SetState(RENDER_CONTEXT* renderContext, RENDER_CONTEXT_STATE state) {
    SHARED_Write(renderContext->State, state);
}

} // namespace

void RENDER_InitializeLists(DEVICE_CONTEXT* context) {
    {
        SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
        InitializeListHead(AvailableList(context));
        context->Render.AvailableCount = 0;
    }
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    InitializeListHead(PendingList(context));
    context->Render.PendingCount = 0;
    context->Render.LatestRenderBufferIndex = RENDER_BUFFER_NONE;
    context->Render.OpenFrame = nullptr;
    context->Render.Dispatching = FALSE;
}

RENDER_CONTEXT* RENDER_TakeAvailable(DEVICE_CONTEXT* context) {
    RENDER_CONTEXT* renderContext;
    {
        SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
        if (IsListEmpty(AvailableList(context))) {
            return nullptr;
        }
        renderContext = FromLink(RemoveHeadList(AvailableList(context)));
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
        InsertTailList(AvailableList(context), &renderContext->Link);
    }
    InterlockedIncrement(&context->Render.AvailableCount);
}

ULONG RENDER_CountAvailable(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD available(context->Render.AvailableListLock);
    ULONG count = 0;
    const LIST_ENTRY* head = AvailableList(context);
    for (const LIST_ENTRY* link = head->Flink; link != head; link = link->Flink) {
        count++;
    }
    return count;
}

void RENDER_AppendPending(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext) {
    SetState(renderContext, FRAME_UPDATED);
    InsertTailList(PendingList(context), &renderContext->Link);
    InterlockedIncrement(&context->Render.PendingCount);
}

RENDER_CONTEXT* RENDER_RemoveFirstPending(DEVICE_CONTEXT* context, LONG* remaining) {
    RENDER_CONTEXT* renderContext = FromLink(RemoveHeadList(PendingList(context)));
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
    while (!IsListEmpty(PendingList(context))) {
        LONG remaining;
        RENDER_ReturnToAvailable(context, RENDER_RemoveFirstPending(context, &remaining));
    }
}

BOOLEAN RENDER_IsNewestBuffer(DEVICE_CONTEXT* context, ULONG index) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    return context->Render.LatestRenderBufferIndex == index;
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
