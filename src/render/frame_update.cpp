#include "render/frame_update.h"

#include "control/mode_setting.h"
#include "device/device_context.h"
#include "display/mode_tables.h"
#include "display/mode_timing.h"
#include "pixel/compression.h"
#include "pixel/transform.h"
#include "render/send.h"
#include "render/start_stop.h"
#include "render/timers.h"
#include "surface/frame_buffer.h"

namespace {

constexpr ULONG TRANSFER_WAIT_MS = 10;
constexpr ULONG THREAD_END_POLL_MS = 10;
constexpr ULONG DISPATCH_PAUSE_MS = 1;

enum THREAD_EVENT : ULONG {
    EVENT_END_THREAD, // wins when several are signalled
    EVENT_FRAME_REQUESTED,
    EVENT_DISPATCH_REQUESTED,
    THREAD_EVENT_COUNT,
};
static_assert(THREAD_EVENT_COUNT <= THREAD_WAIT_OBJECTS);

BOOLEAN IsRunning(const DEVICE_CONTEXT* context) {
    return SHARED_Read(context->Render.RenderRunning) != 0;
}

// As they were at device add, whatever the last run of the pipeline left.
void ResetEvents(RENDER_PIPELINE* render) {
    KeClearEvent(&render->FrameUpdateRequestEvent);
    KeClearEvent(&render->ThreadStartStopEvent);
    KeClearEvent(&render->DispatchRequestEvent);
    KeSetEvent(&render->FrameFillIdleEvent, IO_NO_INCREMENT, FALSE);
    KeSetEvent(&render->DispatchIdleEvent, IO_NO_INCREMENT, FALSE);
}

// Ends a thread that nobody will be able to wait for.
void EndThreadByState(RENDER_PIPELINE* render) {
    KeSetEvent(&render->ThreadStartStopEvent, EVENT_INCREMENT, FALSE);
    while (SHARED_Read(render->FrameUpdateThreadState) != THREAD_ENDED) {
        UTIL_DelayMs(THREAD_END_POLL_MS);
    }
}

// Leaves a reference to the thread object, which shutdown waits for and drops, and no handle.
NTSTATUS StartThread(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    render->ThreadStartContext.DeviceContext = context;
    SHARED_Write(render->FrameUpdateThreadState, THREAD_NOT_STARTED);

    NTSTATUS status = PsCreateSystemThread(&render->FrameUpdateThreadHandle, 0, nullptr, nullptr, nullptr,
                                           THREAD_FrameUpdateProcess, &render->ThreadStartContext);
    if (NT_SUCCESS(status)) {
        status = ObReferenceObjectByHandle(render->FrameUpdateThreadHandle, SYNCHRONIZE, nullptr, KernelMode,
                                           &render->FrameUpdateThreadObject, nullptr);
        if (NT_SUCCESS(status)) {
            render->FrameUpdateThreadCreated = TRUE;
        } else {
            render->FrameUpdateThreadObject = nullptr;
            EndThreadByState(render);
        }
    }
    if (render->FrameUpdateThreadHandle != nullptr) {
        (void)ZwClose(render->FrameUpdateThreadHandle);
        render->FrameUpdateThreadHandle = nullptr;
    }
    return status;
}

void HandleFrameRequest(DEVICE_CONTEXT* context) {
    if (IsRunning(context) && InterlockedExchange(&context->Render.StartedAnew, 0) != 0) {
        FRAMEBUFFER_ResubmitPresented(context);
    }
    // Only now, so that what was just handed over is shown once.
    KeClearEvent(&context->Render.FrameUpdateRequestEvent);
    if (!IsRunning(context)) {
        SHARED_Write(context->Render.StopAcknowledged, TRUE);
    } else if (ReadAcquire(&context->Render.StartedAnew) != 0) {
        // A start came in between, and its request has just been cleared.
        KeSetEvent(&context->Render.FrameUpdateRequestEvent, EVENT_INCREMENT, FALSE);
    } else {
        RENDER_FrameUpdate(context);
    }
}

// A dispatch gave up because transfers complete as fast as they are sent. It goes on here, below
// DISPATCH_LEVEL, and after a pause in which everybody else gets the processor.
void ContinueDispatch(DEVICE_CONTEXT* context) {
    if (IsRunning(context)) {
        UTIL_DelayMs(DISPATCH_PAUSE_MS);
        RENDER_DispatchPendingContexts(context);
    }
}

// Waits a little for a transfer to come back. The dispatch that would send it may be waiting for this thread.
void AwaitTransfers(DEVICE_CONTEXT* context) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = RelativeMs(TRANSFER_WAIT_MS);
    const NTSTATUS status =
        KeWaitForSingleObject(&context->Render.DispatchRequestEvent, Executive, KernelMode, FALSE, &timeout);
    if (status == STATUS_SUCCESS) {
        ContinueDispatch(context);
    }
}

// A context for the next frame, or null when the pipeline was stopped first.
RENDER_CONTEXT* WaitForContext(DEVICE_CONTEXT* context) {
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

ULONG TakeNextBufferIndex(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Locks.RenderBufferIndexMutex);
    const ULONG index = context->Render.NextRenderBufferIndex;
    context->Render.NextRenderBufferIndex = (index + 1) % RENDER_BUFFER_COUNT;
    return index;
}

// The next render buffer in turn, or RENDER_BUFFER_NONE when the pipeline was stopped first. With as many
// buffers as contexts the one in turn is free as long as every frame is sent. Frames that yield nothing use
// up their turn all the same, so that the turn can come round to the buffer that is being sent over and over.
ULONG WaitForBuffer(DEVICE_CONTEXT* context) {
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

// Converts or compresses a whole frame and returns the number of bytes to send, 0 for none.
ULONG ConvertFrame(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source, ULONGLONG sourceSize,
                   ULONG pixelCount) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    if (mode.CompressionEnabled == 0) {
        PIXEL_TransformFrame(context, destination, source, pixelCount);
        return PIXEL_OutputBytes(mode) * pixelCount;
    }
    const auto compress =
        mode.OutputColorMode == OUTPUT_COLOR_16_BIT ? COMPRESSION_CompressFrame16 : COMPRESSION_CompressFrame;
    return static_cast<ULONG>(compress(context, 0, sourceSize, source, destination, pixelCount));
}

// FALSE when there is nothing to send.
BOOLEAN FillRenderBuffer(DEVICE_CONTEXT* context, ULONG index, FRAME_BUFFER_CONTEXT* frameBuffer,
                         ULONG pixelCount) {
    if (!FRAMEBUFFER_BeginRead(context, frameBuffer)) {
        return FALSE;
    }
    const ULONG length = ConvertFrame(context, context->Render.RenderBuffer.Aligned[index],
                                      frameBuffer->PixelBuffer, frameBuffer->ByteSize, pixelCount);
    FRAMEBUFFER_EndRead(frameBuffer);

    context->Render.RenderBufferLength[index] = length;
    return length != 0;
}

// A new frame makes the pending repetition of the last one unnecessary.
void StopAutoUpdate(DEVICE_CONTEXT* context) {
    if (context->Display.Mode.AutoUpdateEnabled != 0 && context->Render.AutoUpdateArmed) {
        WdfTimerStop(context->Render.CompressionAutoUpdateTimer, FALSE);
    }
}

BOOLEAN WantsOtherPixelBytes(const DEVICE_CONTEXT* context) {
    if (context->Settings.UseDynamicPixelBytesAdjustmentEnable == 0) {
        return FALSE;
    }
    switch (context->Display.Mode.OutputColorMode) {
    case OUTPUT_COLOR_24_BIT:
        return SHARED_Read(context->Render.DropFrameEventReceived);
    case OUTPUT_COLOR_16_BIT:
        return SHARED_Read(context->Render.DropFrameCheckState) == DROP_FRAME_CHECK_ELAPSED;
    default:
        return FALSE;
    }
}

// The stop of a pixel-bytes switch. Its last frames may well be incomplete: they must not count as dropped
// ones. RenderStartStopMutex, which the caller holds, comes before DisplayStateMutex, as in every other stop.
void StopForSwitch(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Locks.DisplayStateMutex);
    SHARED_Write(context->Display.FrameErrorHandlingSuspended, TRUE);
    RENDER_Stop(context);
    MODE_DisableOutput(context);
    SHARED_Write(context->Display.FrameErrorHandlingSuspended, FALSE);
}

// The caller holds RenderStartStopMutex.
void SwitchOutput(DEVICE_CONTEXT* context, ULONG outputColorMode) {
    StopForSwitch(context);

    const MODE_PARAMETERS previous = context->Display.Mode;
    MODE_PARAMETERS wanted = previous;
    wanted.OutputColorMode = outputColorMode;
    if (outputColorMode == OUTPUT_COLOR_16_BIT) {
        wanted.Rgb555Enable = 0;
    }
    if (NT_SUCCESS(MODE_Program(context, &wanted))) {
        SHARED_Write(context->Settings.UseUsb3OutputRGB565Enable, 1u);
        (void)RENDER_Start(context);
    } else if (NT_SUCCESS(MODE_Program(context, &previous))) {
        // A transfer failed in the middle of the switch: rather the old picture than none.
        (void)RENDER_Start(context);
    }
    // Else the adapter has no usable timing or pipe, and the stream stays stopped until the next mode set.
}

// The caller holds RenderStartStopMutex. A check period has passed with 16-bit output.
void ConsiderUpgrade(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    SHARED_Write(render->DropFrameCheckState, DROP_FRAME_CHECK_SEEN);
    const ULONG upgrades = SHARED_Read(render->PixelBytesUpgradeCount);
    if (upgrades < context->Settings.DynamicAdjustPixelBytesAtRunTimeThreshold &&
        !SHARED_Read(render->DropFrameEventReceived)) {
        SHARED_Write(render->PixelBytesUpgradeCount, upgrades + 1);
        SwitchOutput(context, OUTPUT_COLOR_24_BIT);
    }
    SHARED_Write(render->DropFrameEventReceived, FALSE);
}

} // namespace

NTSTATUS THREAD_CreateFrameUpdateThread(DEVICE_CONTEXT* context) {
    ResetEvents(&context->Render);
    NTSTATUS status = StartThread(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_CreateCompressionAutoUpdateTimer(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_CreateDropFrameEventCheckTimer(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (UCHAR* buffer : context->Render.RenderBuffer.Aligned) {
        if (buffer != nullptr) {
            RtlZeroMemory(buffer, RENDER_BUFFER_CAPACITY);
        }
    }
    return STATUS_SUCCESS;
}

void THREAD_FrameUpdateProcess(PVOID startContext) {
    DEVICE_CONTEXT* context = static_cast<THREAD_START_CONTEXT*>(startContext)->DeviceContext;
    RENDER_PIPELINE* render = &context->Render;
    SHARED_Write(render->FrameUpdateThreadState, THREAD_RUNNING);

    PVOID events[THREAD_EVENT_COUNT];
    events[EVENT_END_THREAD] = &render->ThreadStartStopEvent;
    events[EVENT_FRAME_REQUESTED] = &render->FrameUpdateRequestEvent;
    events[EVENT_DISPATCH_REQUESTED] = &render->DispatchRequestEvent;
    for (;;) {
        const NTSTATUS status = KeWaitForMultipleObjects(THREAD_EVENT_COUNT, events, WaitAny, Executive,
                                                         KernelMode, FALSE, nullptr, nullptr);
        if (status == STATUS_WAIT_0 + EVENT_END_THREAD) {
            break;
        }
        if (status == STATUS_WAIT_0 + EVENT_FRAME_REQUESTED) {
            HandleFrameRequest(context);
        } else if (status == STATUS_WAIT_0 + EVENT_DISPATCH_REQUESTED) {
            ContinueDispatch(context);
        }
    }
    KeResetEvent(&render->ThreadStartStopEvent);
    SHARED_Write(render->FrameUpdateThreadState, THREAD_ENDED);
}

void RENDER_FrameUpdate(DEVICE_CONTEXT* context) {
    if (!RENDER_BeginFill(context)) {
        return;
    }
    const MODE_PARAMETERS& mode = context->Display.Mode;
    FRAME_BUFFER_CONTEXT* frameBuffer = FRAMEBUFFER_FindPending(context, mode.Width, mode.Height);
    if (frameBuffer == nullptr) {
        RENDER_EndFill(context);
        return;
    }
    if (WantsOtherPixelBytes(context)) {
        // The switch stops the stream and may have to wait for somebody else who stops it.
        RENDER_EndFill(context);
        RENDER_AdjustPixelBytes(context);
        if (!RENDER_BeginFill(context)) {
            FRAMEBUFFER_Dereference(context, frameBuffer);
            return;
        }
    }
    // Meanwhile somebody may have set another mode.
    if (frameBuffer->Width == mode.Width && frameBuffer->Height == mode.Height) {
        RENDER_Private_UpdateRenderingFrameBuffer(context, frameBuffer);
    }
    RENDER_EndFill(context);
    FRAMEBUFFER_Dereference(context, frameBuffer);
}

void RENDER_Private_UpdateRenderingFrameBuffer(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    // The client may ask for a listed mode that no monitor was offered: the frames of some exceed a render
    // buffer, and no adapter holds any of them.
    if (ULONGLONG{mode.Width} * mode.Height > MODE_MAX_PIXELS) {
        return;
    }
    const ULONG pixelCount = mode.Width * mode.Height;
    StopAutoUpdate(context);

    RENDER_CONTEXT* renderContext = WaitForContext(context);
    if (renderContext == nullptr) {
        return;
    }
    const ULONG index = WaitForBuffer(context);
    if (index == RENDER_BUFFER_NONE || !FillRenderBuffer(context, index, frameBuffer, pixelCount)) {
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    renderContext->RenderBufferIndex = index;
    if (mode.CompressionEnabled != 0) {
        RENDER_CompressionAutoUpdate(context, context->Render.RenderBufferLength[index]);
    }
    if (!RENDER_QueueFrame(context, renderContext)) {
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    RENDER_DispatchPendingContexts(context);
}

void RENDER_AdjustPixelBytes(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Locks.RenderStartStopMutex);
    if (!IsRunning(context)) {
        return; // Stopped meanwhile; whoever starts the stream again chooses its format.
    }
    switch (context->Display.Mode.OutputColorMode) {
    case OUTPUT_COLOR_24_BIT:
        if (SHARED_Read(context->Render.DropFrameEventReceived)) {
            SwitchOutput(context, OUTPUT_COLOR_16_BIT);
        }
        break;
    case OUTPUT_COLOR_16_BIT:
        if (SHARED_Read(context->Render.DropFrameCheckState) == DROP_FRAME_CHECK_ELAPSED) {
            ConsiderUpgrade(context);
        }
        break;
    default:
        break;
    }
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
