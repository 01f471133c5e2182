#include "render/drop_frames.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "render/passive_timer.h"
#include "surface/frame_buffer.h"

struct RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT {
    DEVICE_CONTEXT* DeviceContext;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT, RENDER_GetCheckTimerContext)

namespace {

// Adds one report. TRUE while the bucket is not full.
BOOLEAN FillBucket(DEVICE_CONTEXT* context) {
    const ULONG increment = context->Settings.FrameErrorBucketIncrementValue;
    const ULONG before = static_cast<ULONG>(
        InterlockedExchangeAdd(&context->Render.FrameErrorBucket, static_cast<LONG>(increment)));
    return before + increment < context->Settings.FrameErrorBucketThreshold;
}

// Not while the mode changes.
void EndCheckPeriod(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DropFrameCheckMutex) {
    SHARED_Write(context->Render.DropFrameCheckState, DROP_FRAME_CHECK_ELAPSED);
}

} // namespace

NTSTATUS RENDER_CreateDropFrameEventCheckTimer(DEVICE_CONTEXT* context) {
    WDFTIMER* timer = &context->Render.DropFrameEventCheckTimer;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT);
    const NTSTATUS status = TIMER_Create(context, RENDER_DropFrameEventCheckTimerFunc, &attributes, timer);
    if (NT_SUCCESS(status)) {
        RENDER_GetCheckTimerContext(*timer)->DeviceContext = context;
    }
    return status;
}

void RENDER_DeleteDropFrameEventCheckTimer(DEVICE_CONTEXT* context) {
    TIMER_Delete(&context->Render.DropFrameEventCheckTimer);
}

void RENDER_DropFrameEventCheckTimerFunc(WDFTIMER timer) {
    DEVICE_CONTEXT* context = RENDER_GetCheckTimerContext(timer)->DeviceContext;
    {
        MUTEX_GUARD guard(context->Display.DropFrameCheckMutex);
        EndCheckPeriod(context);
    }
    // A detach does not wait for this callback. If it stops the timer between this check and the start, the
    // timer fires once more.
    if (SHARED_Read(context->Control.MonitorConnected)) {
        WdfTimerStart(timer, RelativeMs(DROP_FRAME_CHECK_PERIOD_MS));
    }
}

void RENDER_StartDropFrameEventCheckTimer(DEVICE_CONTEXT* context, ULONG milliseconds) {
    if (context->Render.DropFrameEventCheckTimer != nullptr) {
        WdfTimerStart(context->Render.DropFrameEventCheckTimer, RelativeMs(milliseconds));
    }
}

void RENDER_StopDropFrameEventCheckTimer(DEVICE_CONTEXT* context) {
    if (context->Render.DropFrameEventCheckTimer != nullptr) {
        WdfTimerStop(context->Render.DropFrameEventCheckTimer, FALSE);
    }
}

// The stop waits for a running callback: it would report the end of a period that began earlier.
void RENDER_RestartDropFrameCheck(DEVICE_CONTEXT* context) {
    const WDFTIMER timer = context->Render.DropFrameEventCheckTimer;
    WdfTimerStop(timer, TRUE);
    SHARED_Write(context->Render.DropFrameCheckState, DROP_FRAME_CHECK_RESET);
    if (SHARED_Read(context->Control.MonitorConnected)) {
        WdfTimerStart(timer, RelativeMs(DROP_FRAME_CHECK_PERIOD_MS));
    }
}

void RENDER_ResetDropFrameCheck(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Render.DropFrameCheckState, DROP_FRAME_CHECK_RESET);
    SHARED_Write(context->Render.PixelBytesUpgradeCount, 0u);
}

void RENDER_ForgetDroppedFrames(DEVICE_CONTEXT* context) {
    if (context->Settings.UseDynamicPixelBytesAdjustmentEnable != 0) {
        SETTINGS_UseRgb565Output(&context->Settings, FALSE);
    }
    SHARED_Write(context->Render.DropFrameEventReceived, FALSE);
}

void RENDER_ForgetFrameErrors(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Render.DropFrameEventReceived, FALSE);
    RENDER_EmptyFrameErrorBucket(context);
}

void RENDER_SuspendFrameErrors(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Render.FrameErrorHandlingSuspended, TRUE);
}

void RENDER_ResumeFrameErrors(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Render.FrameErrorHandlingSuspended, FALSE);
}

BOOLEAN RENDER_FrameErrorsSuspended(const DEVICE_CONTEXT* context) {
    return SHARED_Read(context->Render.FrameErrorHandlingSuspended);
}

void RENDER_HandleFrameError(DEVICE_CONTEXT* context) {
    if (context->Settings.UseBandwidthDetectionEnable == 0 ||
        !SHARED_Read(context->Control.MonitorConnected)) {
        return;
    }
    if (context->Settings.UseFrameErrorBucket != 0 &&
        !SHARED_Read(context->Render.FrameErrorHandlingSuspended) && FillBucket(context)) {
        return;
    }
    if (FRAMEBUFFER_HasPending(context)) {
        SHARED_Write(context->Render.DropFrameEventReceived, TRUE);
    }
}

void RENDER_EmptyFrameErrorBucket(DEVICE_CONTEXT* context) {
    if (context->Settings.UseFrameErrorBucket != 0) {
        InterlockedExchange(&context->Render.FrameErrorBucket, 0);
    }
}

void RENDER_DecayFrameErrorBucket(DEVICE_CONTEXT* context) {
    if (context->Settings.UseFrameErrorBucket == 0) {
        return;
    }
    // Never below 0: the level is compared as an unsigned number. The loop repeats only when another task has
    // changed the bucket.
    LONG* bucket = &context->Render.FrameErrorBucket;
    LONG level = ReadAcquire(bucket);
    while (level != 0) {
        const LONG found =
            InterlockedCompareExchange(bucket, static_cast<LONG>(static_cast<ULONG>(level) - 1), level);
        if (found == level) {
            return;
        }
        level = found;
    }
}
