#include "render/timers.h"

#include "device/device_context.h"
#include "device/usb_context.h"
#include "pixel/compression.h"

struct RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT {
    ::DEVICE_CONTEXT* DeviceContext;
};

struct RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT {
    ::DEVICE_CONTEXT* DeviceContext;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT, RENDER_GetAutoUpdateContext)
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT, RENDER_GetCheckTimerContext)

namespace {

constexpr ULONG AUTO_UPDATE_DELAY_MS = 10;
constexpr ULONG REPEAT_DELAY_MS = 100; // long enough that a bus that refuses everything costs next to nothing

NTSTATUS CreateTimer(DEVICE_CONTEXT* context, PFN_WDF_TIMER function, WDF_OBJECT_ATTRIBUTES* attributes,
                     WDFTIMER* timer) {
    WDF_TIMER_CONFIG config;
    WDF_TIMER_CONFIG_INIT(&config, function);
    config.AutomaticSerialization = TRUE;
    attributes->ExecutionLevel = WdfExecutionLevelPassive;
    attributes->ParentObject = context->Device;
    const NTSTATUS status = WdfTimerCreate(&config, attributes, timer);
    if (!NT_SUCCESS(status)) {
        *timer = nullptr;
    }
    return status;
}

void DeleteTimer(WDFTIMER* timer) {
    if (*timer != nullptr) {
        WdfTimerStop(*timer, TRUE);
        WdfObjectDelete(*timer);
        *timer = nullptr;
    }
}

BOOLEAN HasPresentedFrame(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD list(context->Client.FrameBufferListLock);
    return context->Client.PendingFrameBuffer != nullptr && context->Client.PendingFrameSize != 0;
}

// Reports still fit into the bucket.
BOOLEAN FillBucket(DEVICE_CONTEXT* context) {
    const ULONG increment = context->Settings.FrameErrorBucketIncrementValue;
    const ULONG before = static_cast<ULONG>(
        InterlockedExchangeAdd(&context->Render.FrameErrorBucket, static_cast<LONG>(increment)));
    return before + increment < context->Settings.FrameErrorBucketThreshold;
}

} // namespace

NTSTATUS RENDER_CreateCompressionAutoUpdateTimer(DEVICE_CONTEXT* context) {
    WDFTIMER* timer = &context->Render.CompressionAutoUpdateTimer;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT);
    const NTSTATUS status = CreateTimer(context, RENDER_CompressionAutoUpdateTimerFunc, &attributes, timer);
    if (NT_SUCCESS(status)) {
        RENDER_GetAutoUpdateContext(*timer)->DeviceContext = context;
    }
    return status;
}

NTSTATUS RENDER_CreateDropFrameEventCheckTimer(DEVICE_CONTEXT* context) {
    WDFTIMER* timer = &context->Render.DropFrameEventCheckTimer;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, RENDER_DROPFRAMEEVENT_CHECKTIMER_CONTEXT);
    const NTSTATUS status = CreateTimer(context, RENDER_DropFrameEventCheckTimerFunc, &attributes, timer);
    if (NT_SUCCESS(status)) {
        RENDER_GetCheckTimerContext(*timer)->DeviceContext = context;
    }
    return status;
}

void RENDER_DeleteTimers(DEVICE_CONTEXT* context) {
    DeleteTimer(&context->Render.CompressionAutoUpdateTimer);
    DeleteTimer(&context->Render.DropFrameEventCheckTimer);
}

void RENDER_CompressionAutoUpdateTimerFunc(WDFTIMER timer) {
    DEVICE_CONTEXT* context = RENDER_GetAutoUpdateContext(timer)->DeviceContext;
    KeSetEvent(&context->Render.FrameUpdateRequestEvent, EVENT_INCREMENT, FALSE);
}

void RENDER_DropFrameEventCheckTimerFunc(WDFTIMER timer) {
    DEVICE_CONTEXT* context = RENDER_GetCheckTimerContext(timer)->DeviceContext;
    {
        MUTEX_GUARD guard(context->Locks.DropFrameCheckMutex);
        SHARED_Write(context->Render.DropFrameCheckState, DROP_FRAME_CHECK_ELAPSED);
    }
    // A detach does not wait for this callback. Either it finds the timer started here and stops it, or its
    // word is seen here; at worst the timer fires once more.
    if (SHARED_Read(context->Display.MonitorConnected)) {
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

void RENDER_CompressionAutoUpdate(DEVICE_CONTEXT* context, ULONGLONG length) {
    RENDER_PIPELINE* render = &context->Render;
    const MODE_PARAMETERS& mode = context->Display.Mode;
    render->AutoUpdateArmed = FALSE;
    if (context->Usb.DeviceDescriptor.bcdUSB != USB_BCD_HIGH_SPEED_LINK || mode.AutoUpdateEnabled == 0) {
        return;
    }
    if (length > mode.CompressedHighThreshold) {
        // The same frame once more, soon, and smaller.
        COMPRESSION_RaiseLevel(context);
        render->AutoUpdateArmed = TRUE;
        render->SmallFrameSeen = FALSE;
        WdfTimerStart(render->CompressionAutoUpdateTimer, RelativeMs(AUTO_UPDATE_DELAY_MS));
    } else if (length >= mode.CompressedLowThreshold) {
        render->SmallFrameSeen = FALSE;
    } else if (render->SmallFrameSeen) {
        render->SmallFrameSeen = FALSE;
        COMPRESSION_LowerLevel(context);
    } else {
        render->SmallFrameSeen = TRUE;
    }
}

void RENDER_RepeatFrameLater(DEVICE_CONTEXT* context) {
    WdfTimerStart(context->Render.CompressionAutoUpdateTimer, RelativeMs(REPEAT_DELAY_MS));
}

void RENDER_HandleFrameError(DEVICE_CONTEXT* context) {
    if (context->Settings.UseBandwidthDetectionEnable == 0 ||
        !SHARED_Read(context->Display.MonitorConnected)) {
        return;
    }
    if (context->Settings.UseFrameErrorBucket != 0 &&
        !SHARED_Read(context->Display.FrameErrorHandlingSuspended) && FillBucket(context)) {
        return;
    }
    if (HasPresentedFrame(context)) {
        SHARED_Write(context->Render.DropFrameEventReceived, TRUE);
    }
}

void RENDER_DecayFrameErrorBucket(DEVICE_CONTEXT* context) {
    if (context->Settings.UseFrameErrorBucket == 0) {
        return;
    }
    // Never below 0, which as an unsigned level would be the fullest bucket of all. Another try only after
    // somebody else has changed the bucket.
    LONG* bucket = &context->Render.FrameErrorBucket;
    LONG level = ReadAcquire(bucket);
    while (level != 0) {
        const LONG found = InterlockedCompareExchange(bucket, level - 1, level);
        if (found == level) {
            return;
        }
        level = found;
    }
}
