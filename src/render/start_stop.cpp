#include "render/start_stop.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "display/video_output.h"
#include "render/context_lists.h"
#include "render/drop_frames.h"
#include "render/request_pool.h"
#include "render/send.h"
#include "surface/present.h"
#include "usb/registers.h"

namespace {

constexpr ULONG STOP_ACKNOWLEDGE_MS = 100;
constexpr ULONG CONTEXT_RETURN_POLL_MS = 1;
constexpr ULONG CONTEXT_RETURN_POLL_COUNT = 100;
constexpr ULONG CANCEL_POLL_MS = 10;

void SetRenderRunning(DEVICE_CONTEXT* context, ULONG running)
    TSA_REQUIRES(context->Render.RenderStartStopMutex, context->Render.PendingListLock) {
    SHARED_Write(context->Render.RenderRunning, running);
    if (running != 0) {
        KeClearEvent(&context->Render.StoppedEvent);
    } else {
        KeSetEvent(&context->Render.StoppedEvent, IO_NO_INCREMENT, FALSE);
    }
}

// The answer holds as long as the lock is held.
BOOLEAN RunsWhileLocked(const DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.PendingListLock) {
    return context->Render.RenderRunning != 0;
}

// Under PendingListLock: the frame update thread and each completion either are past their critical section
// or find the stream stopped.
void SetStopped(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    SetRenderRunning(context, 0);
}

void SetRunning(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    {
        SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
        // The render buffers hold frames from before the stop, perhaps of another mode.
        context->Render.LatestRenderBufferIndex = RENDER_BUFFER_NONE;
        SetRenderRunning(context, 1);
    }
    // The newest presented frame is sent at once, whether it was presented before the stop or since then: a
    // client that has nothing to redraw would leave the monitor dark or with an old picture.
    InterlockedExchange(&context->Render.StartedAnew, 1);
    FRAMEBUFFER_RequestUpdate(context);
}

BOOLEAN IsFrameUpdateThread(const RENDER_PIPELINE* render) {
    return KeGetCurrentThread() == render->FrameUpdateThreadObject;
}

// Wakes the thread from its wait and lets it take a frame request that has lost its purpose.
void AwaitAcknowledgment(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    RENDER_PIPELINE* render = &context->Render;
    FRAMEBUFFER_RequestUpdate(context);
    if (!IsFrameUpdateThread(render) && !SHARED_Read(render->StopAcknowledged) &&
        SHARED_Read(render->FrameUpdateThreadState) == THREAD_RUNNING) {
        UTIL_DelayMs(STOP_ACKNOWLEDGE_MS);
        FRAMEBUFFER_RequestUpdate(context);
    }
    SHARED_Write(render->StopAcknowledged, FALSE);
}

// For an event or the end of a thread.
void WaitFor(VOID* object) {
    (void)KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr);
}

// The thread finishes or drops its frame; all its waits within a fill end once RenderRunning is clear.
void AwaitFillEnd(RENDER_PIPELINE* render) {
    if (!IsFrameUpdateThread(render)) {
        WaitFor(&render->FrameFillIdleEvent);
    }
}

POLL_RESULT ProbeContextsReturned(DEVICE_CONTEXT* context) {
    return RENDER_CountAvailable(context) == RENDER_CONTEXT_COUNT ? POLL_RESULT::Done : POLL_RESULT::Again;
}

// Returns every context that was queued or sent to AvailableList. The stream is stopped and the thread fills
// nothing.
void DrainTransfers(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    // A running dispatch sends what it queued before it ends; a new one finds the stream stopped.
    WaitFor(&context->Render.DispatchIdleEvent);
    RENDER_EmptyQueue(context);

    REQUEST_WaitSentCompleted(context);
    if (REQUEST_AllSentCompleted(context)) {
        // The last completion may not have returned its context yet: that takes a few instructions more.
        (void)UTIL_Poll(CONTEXT_RETURN_POLL_MS, CONTEXT_RETURN_POLL_COUNT, ProbeContextsReturned, context);
    }
    REQUEST_DiscardSent(context);
}

// Nothing that a transfer uses may be deleted before it has completed, so there is no limit: the USB stack
// completes every request that is canceled.
void CancelOutstanding(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
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
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    context->Render.ShutDown = TRUE;
    context->Render.SuspendedWhileRunning = FALSE;
    SetStopped(context);
    {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        RENDER_ForgetDroppedFrames(context);
    }
    if (!context->Render.FrameUpdateThreadCreated) {
        return FALSE;
    }
    KeResetEvent(&context->Render.ThreadStartStopEvent);
    KeSetEvent(&context->Render.ThreadStartStopEvent, EVENT_INCREMENT, FALSE);
    return TRUE;
}

} // namespace

NTSTATUS RENDER_Start(DEVICE_CONTEXT* context) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (context->Render.ShutDown) {
        return STATUS_SUCCESS;
    }
    if (mode.CompressionEnabled == 0) {
        for (ULONG& length : context->Render.RenderBufferLength) {
            length = mode.Width * mode.Height * mode.SourceBytesPerPixel;
        }
    }
    MODE_MarkOutput(context, TRUE);
    SetRunning(context);
    return STATUS_SUCCESS;
}

void RENDER_Stop(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    context->Render.SuspendedWhileRunning = FALSE;
    SHARED_Write(context->Render.StopAcknowledged, FALSE);
    SetStopped(context);

    if (context->Render.FrameUpdateThreadCreated) {
        AwaitAcknowledgment(context);
        AwaitFillEnd(&context->Render);
        if (context->Display.Mode.BandwidthFlag != 0) {
            REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_BANDWIDTH_BIT);
        }
        DrainTransfers(context);
    }

    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_ForgetDroppedFrames(context);
}

void RENDER_Suspend(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (context->Render.RenderRunning == 0) {
        return;
    }
    SetStopped(context);
    context->Render.SuspendedWhileRunning = TRUE;
    AwaitFillEnd(&context->Render);
    DrainTransfers(context);
    RENDER_ForgetFrameErrors(context);
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
    if (!RequestThreadEnd(context)) {
        return;
    }
    // The thread object and not its state is waited for: the thread still runs driver code after it set the
    // state.
    WaitFor(context->Render.FrameUpdateThreadObject);

    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    ObDereferenceObject(context->Render.FrameUpdateThreadObject);
    context->Render.FrameUpdateThreadObject = nullptr;
    context->Render.FrameUpdateThreadCreated = FALSE;
    DrainTransfers(context);
    CancelOutstanding(context);
}

BOOLEAN RENDER_IsRunning(const DEVICE_CONTEXT* context) {
    return SHARED_Read(context->Render.RenderRunning) != 0;
}

BOOLEAN RENDER_BeginFill(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD pending(context->Render.PendingListLock);
    if (!RunsWhileLocked(context)) {
        return FALSE;
    }
    KeClearEvent(&context->Render.FrameFillIdleEvent);
    return TRUE;
}

void RENDER_EndFill(DEVICE_CONTEXT* context) {
    KeSetEvent(&context->Render.FrameFillIdleEvent, IO_NO_INCREMENT, FALSE);
}
