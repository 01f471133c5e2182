#include "render/buffer_turn.h"

#include "base/util.h"
#include "render/context_lists.h"
#include "render/send.h"
#include "render/start_stop.h"

namespace {

constexpr ULONG TRANSFER_WAIT_MS = 10;
constexpr ULONG DISPATCH_PAUSE_MS = 1;

// Gives transfers time to complete. A dispatch that has to send them may need this thread to continue it.
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
    while (RENDER_IsRunning(context)) {
        RENDER_CONTEXT* renderContext = RENDER_TakeAvailable(context);
        if (renderContext != nullptr) {
            InterlockedExchange(&renderContext->OutstandingRequests, 0);
            return renderContext;
        }
        AwaitTransfers(context);
    }
    return nullptr;
}

// There are as many buffers as contexts, so the next one in turn is free as long as every frame is sent. A
// frame with nothing to send uses up a turn as well, so the turn can reach the buffer that is sent
// repeatedly: that one is skipped.
ULONG RENDER_WaitForBuffer(DEVICE_CONTEXT* context) {
    while (RENDER_IsRunning(context)) {
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
    if (RENDER_IsRunning(context)) {
        UTIL_DelayMs(DISPATCH_PAUSE_MS);
        RENDER_DispatchPendingContexts(context);
    }
}
