#include "render/start_stop.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "display/video_output.h"
#include "render/context_lists.h"
#include "render/drop_frames.h"
#include "render/request_pool.h"
#include "surface/present.h"
#include "usb/registers.h"

namespace {

constexpr ULONG STOP_ACKNOWLEDGE_MS = 100;
constexpr ULONG CONTEXT_RETURN_POLL_MS = 1;
constexpr ULONG CONTEXT_RETURN_POLL_COUNT = 100;
constexpr ULONG CANCEL_POLL_MS = 10;

// Under PendingListLock: the frame update thread and each completion have either finished what they began
// while the stream ran, or find it stopped.
void SetStopped(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    SHARED_Write(context->Render.RenderRunning, 0u);
}

void SetRunning(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    {
        SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
        // What the render buffers hold is from before the stop, in another mode perhaps.
        context->Render.LatestRenderBufferIndex = RENDER_BUFFER_NONE;
        SHARED_Write(context->Render.RenderRunning, 1u);
    }
    // The newest presented frame goes out now, be it one from before the stop or one that came meanwhile: a
    // client that has nothing to redraw would leave the monitor dark, or with an old picture.
    InterlockedExchange(&context->Render.StartedAnew, 1);
    FRAMEBUFFER_RequestUpdate(context);
}

BOOLEAN IsFrameUpdateThread(const RENDER_PIPELINE* render) {
    return KeGetCurrentThread() == render->FrameUpdateThreadObject;
}

// Wakes the thread out of whatever it waits for, and lets it consume a frame request that is now void.
void AwaitAcknowledgement(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    FRAMEBUFFER_RequestUpdate(context);
    if (!IsFrameUpdateThread(render) && !SHARED_Read(render->StopAcknowledged) &&
        SHARED_Read(render->FrameUpdateThreadState) == THREAD_RUNNING) {
        UTIL_DelayMs(STOP_ACKNOWLEDGE_MS);
        FRAMEBUFFER_RequestUpdate(context);
    }
    SHARED_Write(render->StopAcknowledged, FALSE);
}

void WaitForEvent(KEVENT* event) {
    (void)KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
}

// The thread finishes or drops the frame at hand; all its waits in between end once RenderRunning is clear.
void AwaitFillEnd(RENDER_PIPELINE* render) {
    if (!IsFrameUpdateThread(render)) {
        WaitForEvent(&render->FrameFillIdleEvent);
    }
}

POLL_RESULT ProbeContextsReturned(DEVICE_CONTEXT* context) {
    return RENDER_CountAvailable(context) == RENDER_CONTEXT_COUNT ? POLL_RESULT::Done : POLL_RESULT::Again;
}

// Returns every context that was queued or sent to AvailableList. The stream is stopped and the thread fills
// nothing.
void DrainTransfers(DEVICE_CONTEXT* context) {
    // A running dispatch sends what it queued before it ends; a new one finds the stream stopped.
    WaitForEvent(&context->Render.DispatchIdleEvent);
    RENDER_ClearPending(context);

    REQUEST_WaitSentCompleted(context);
    if (REQUEST_AllSentCompleted(context)) {
        // The completion that came last is still on its way to the available list, a few instructions long.
        (void)UTIL_Poll(CONTEXT_RETURN_POLL_MS, CONTEXT_RETURN_POLL_COUNT, ProbeContextsReturned, context);
    }
    REQUEST_DiscardSent(context);
}

// Nothing that a transfer uses may be deleted before the transfer is back, so there is no limit: the USB
// stack completes whatever is cancelled.
void CancelOutstanding(DEVICE_CONTEXT* context) {
    while (RENDER_CountAvailable(context) != RENDER_CONTEXT_COUNT) {
        for (const RENDER_CONTEXT* renderContext : context->Render.RenderContexts) {
            if (ReadAcquire(&renderContext->OutstandingRequests) != 0) {
                WdfRequestCancelSentRequest(renderContext->RenderRequest);
                WdfRequestCancelSentRequest(renderContext->ZeroLengthRequest);
            }
        }
        UTIL_DelayMs(CANCEL_POLL_MS);
    }
}

// FALSE when there is no thread to end.
BOOLEAN RequestThreadEnd(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    context->Render.ShutDown = TRUE;
    context->Render.SuspendedWhileRunning = FALSE;
    SetStopped(context);
    RENDER_ForgetDroppedFrames(context);
    if (!render->FrameUpdateThreadCreated) {
        return FALSE;
    }
    KeResetEvent(&render->ThreadStartStopEvent);
    KeSetEvent(&render->ThreadStartStopEvent, EVENT_INCREMENT, FALSE);
    return TRUE;
}

} // namespace

NTSTATUS RENDER_Start(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    const MODE_PARAMETERS& mode = context->Display.Mode;
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (context->Render.ShutDown) {
        return STATUS_SUCCESS;
    }
    if (mode.CompressionEnabled == 0) {
        for (ULONG& length : render->RenderBufferLength) {
            length = mode.Width * mode.Height * mode.SourceBytesPerPixel;
        }
    }
    MODE_MarkOutput(context, TRUE);
    SetRunning(context);
    return STATUS_SUCCESS;
}

void RENDER_Stop(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    context->Render.SuspendedWhileRunning = FALSE;
    SHARED_Write(render->StopAcknowledged, FALSE);
    SetStopped(context);

    if (render->FrameUpdateThreadCreated) {
        AwaitAcknowledgement(context);
        AwaitFillEnd(render);
        if (context->Display.Mode.BandwidthFlag != 0) {
            REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_BANDWIDTH_BIT);
        }
        DrainTransfers(context);
    }

    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_ForgetDroppedFrames(context);
}

void RENDER_Suspend(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (render->RenderRunning == 0) {
        return;
    }
    SetStopped(context);
    context->Render.SuspendedWhileRunning = TRUE;
    AwaitFillEnd(render);
    DrainTransfers(context);
}

void RENDER_Resume(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (context->Render.SuspendedWhileRunning && !context->Render.ShutDown) {
        context->Render.SuspendedWhileRunning = FALSE;
        SetRunning(context);
    }
}

void RENDER_StopSuspended(DEVICE_CONTEXT* context) {
    {
        MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
        context->Render.SuspendedWhileRunning = FALSE;
    }
    MODE_MarkOutput(context, FALSE);
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_ForgetDroppedFrames(context);
}

void RENDER_Shutdown(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    if (!RequestThreadEnd(context)) {
        return;
    }
    // Wait on the thread object: the thread still runs driver code after it set its state.
    (void)KeWaitForSingleObject(render->FrameUpdateThreadObject, Executive, KernelMode, FALSE, nullptr);

    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    ObDereferenceObject(render->FrameUpdateThreadObject);
    render->FrameUpdateThreadObject = nullptr;
    render->FrameUpdateThreadCreated = FALSE;
    DrainTransfers(context);
    CancelOutstanding(context);
}

BOOLEAN RENDER_BeginFill(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (context->Render.RenderRunning == 0) {
        return FALSE;
    }
    KeClearEvent(&context->Render.FrameFillIdleEvent);
    return TRUE;
}

void RENDER_EndFill(DEVICE_CONTEXT* context) {
    KeSetEvent(&context->Render.FrameFillIdleEvent, IO_NO_INCREMENT, FALSE);
}
