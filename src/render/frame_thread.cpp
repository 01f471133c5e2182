#include <ntifs.h>

#include "render/frame_thread.h"

#include "base/shared_field.h"
#include "render/buffer_turn.h"
#include "render/frame_update.h"
#include "render/start_stop.h"
#include "surface/present.h"

namespace {

enum THREAD_EVENT : ULONG {
    EVENT_END_THREAD, // the first one wins when several are signaled
    EVENT_FRAME_REQUESTED,
    EVENT_DISPATCH_REQUESTED,
    THREAD_EVENT_COUNT,
};
static_assert(THREAD_EVENT_COUNT <= THREAD_WAIT_OBJECTS);

// To their state at device add: the last run of the pipeline may have changed it.
void ResetEvents(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    FRAMEBUFFER_ClearUpdateRequest(context);
    KeClearEvent(&render->ThreadStartStopEvent);
    KeClearEvent(&render->DispatchRequestEvent);
    KeSetEvent(&render->FrameFillIdleEvent, IO_NO_INCREMENT, FALSE);
    KeSetEvent(&render->DispatchIdleEvent, IO_NO_INCREMENT, FALSE);
}

// Ends a thread whose object could not be referenced. Its state would not do: the thread still runs driver
// code after it set the state.
void EndThreadByHandle(RENDER_PIPELINE* render) {
    KeSetEvent(&render->ThreadStartStopEvent, EVENT_INCREMENT, FALSE);
    (void)ZwWaitForSingleObject(render->FrameUpdateThreadHandle, FALSE, nullptr);
}

void MarkThreadCreated(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    context->Render.FrameUpdateThreadCreated = TRUE;
}

// Keeps a reference to the thread object, which shutdown waits for and drops, and no handle.
NTSTATUS StartThread(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    render->ThreadStartContext.DeviceContext = context;
    SHARED_Write(render->FrameUpdateThreadState, THREAD_NOT_STARTED);

    // Out of reach of the process in whose context the hardware is prepared.
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status = PsCreateSystemThread(&render->FrameUpdateThreadHandle, 0, &attributes, nullptr, nullptr,
                                           THREAD_FrameUpdateProcess, &render->ThreadStartContext);
    if (NT_SUCCESS(status)) {
        status = ObReferenceObjectByHandle(render->FrameUpdateThreadHandle, SYNCHRONIZE, nullptr, KernelMode,
                                           &render->FrameUpdateThreadObject, nullptr);
        if (NT_SUCCESS(status)) {
            MarkThreadCreated(context);
        } else {
            render->FrameUpdateThreadObject = nullptr;
            EndThreadByHandle(render);
        }
    }
    if (render->FrameUpdateThreadHandle != nullptr) {
        (void)ZwClose(render->FrameUpdateThreadHandle);
        render->FrameUpdateThreadHandle = nullptr;
    }
    return status;
}

void HandleFrameRequest(DEVICE_CONTEXT* context) {
    if (RENDER_IsRunning(context) && InterlockedExchange(&context->Render.StartedAnew, 0) != 0) {
        FRAMEBUFFER_ResubmitPresented(context);
    }
    // Not earlier, so that the frame that was just handed over is shown only once.
    FRAMEBUFFER_ClearUpdateRequest(context);
    if (!RENDER_IsRunning(context)) {
        SHARED_Write(context->Render.StopAcknowledged, TRUE);
    } else if (ReadAcquire(&context->Render.StartedAnew) != 0) {
        // A start in between made a request that has just been cleared.
        FRAMEBUFFER_RequestUpdate(context);
    } else {
        RENDER_FrameUpdate(context);
    }
}

} // namespace

NTSTATUS THREAD_CreateFrameUpdateThread(DEVICE_CONTEXT* context) {
    ResetEvents(context);
    return StartThread(context);
}

void THREAD_FrameUpdateProcess(PVOID startContext) {
    DEVICE_CONTEXT* context = static_cast<THREAD_START_CONTEXT*>(startContext)->DeviceContext;
    RENDER_PIPELINE* render = &context->Render;
    SHARED_Write(render->FrameUpdateThreadState, THREAD_RUNNING);

    PVOID events[THREAD_EVENT_COUNT];
    events[EVENT_END_THREAD] = &render->ThreadStartStopEvent;
    events[EVENT_FRAME_REQUESTED] = &context->Surface.FrameUpdateRequestEvent;
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
            RENDER_ContinueDispatch(context);
        }
    }
    KeResetEvent(&render->ThreadStartStopEvent);
    SHARED_Write(render->FrameUpdateThreadState, THREAD_ENDED);
}
