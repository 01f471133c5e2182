#include "render/buffer_turn.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "render/context_lists.h"
#include "render/send.h"

namespace {

constexpr ULONG TRANSFER_WAIT_MS = 10;
constexpr ULONG DISPATCH_PAUSE_MS = 1;

BOOLEAN IsRunning(const DEVICE_CONTEXT* context) {
    return SHARED_Read(context->Render.RenderRunning) != 0;
}

// Waits a little for a transfer to come back. The dispatch that would send it may be waiting for this thread.
void AwaitTransfers(DEVICE_CONTEXT* context) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = RelativeMs(TRANSFER_WAIT_MS);
    const NTSTATUS status =
        KeWaitForSingleObject(&context->Render.DispatchRequestEvent, Executive, KernelMode, FALSE, &timeout);
    if (status == STATUS_SUCCESS) {
        RENDER_ContinueDispatch(context);
    }
}

ULONG TakeNextBufferIndex(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Render.RenderBufferIndexMutex);
    const ULONG index = context->Render.NextRenderBufferIndex;
    context->Render.NextRenderBufferIndex = (index + 1) % RENDER_BUFFER_COUNT;
    return index;
}

} // namespace

RENDER_CONTEXT* RENDER_WaitForContext(DEVICE_CONTEXT* context) {
    while (IsRunning(context)) {
        RENDER_CONTEXT* renderContext = RENDER_TakeAvailable(context);
        if (renderContext != nullptr) {
            InterlockedExchange(&renderContext->OutstandingRequests, 0);
            return renderContext;
        }
        AwaitTransfers(context);
    }
    return nullptr;
}

// With as many buffers as contexts the next one in turn is free as long as every frame is sent. Frames that
// yield nothing use their turn as well, so that the turn can reach the buffer that is being sent again and
// again.
ULONG RENDER_WaitForBuffer(DEVICE_CONTEXT* context) {
    while (IsRunning(context)) {
        for (ULONG i = 0; i < RENDER_BUFFER_COUNT; i++) {
            const ULONG index = TakeNextBufferIndex(context);
            if (!RENDER_IsBufferInUse(context, index)) {
                return index;
            }
        }
        AwaitTransfers(context);
    }
    return RENDER_BUFFER_NONE;
}

void RENDER_ContinueDispatch(DEVICE_CONTEXT* context) {
    if (IsRunning(context)) {
        UTIL_DelayMs(DISPATCH_PAUSE_MS);
        RENDER_DispatchPendingContexts(context);
    }
}
