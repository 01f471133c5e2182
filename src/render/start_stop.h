// Start, stop, pause and end of the stream. They take RenderStartStopMutex, which means "the pipeline changes
// its state": a task that also changes the mode holds it around both.
#pragma once

#include "device/device_context.h"

// Starts the stream; the newest presented frame is sent at once. After a shutdown it stays stopped. Always
// STATUS_SUCCESS.
_IRQL_requires_(PASSIVE_LEVEL)
NTSTATUS RENDER_Start(DEVICE_CONTEXT* context);

// When it returns, no render buffer is being filled, nothing is queued, the frame update thread uses neither
// mode nor staging buffer, and every context whose transfers have completed is available. Blocks for up to
// 100 ms, for the frame that is being filled and for what is in flight (at most 3.4 seconds). The caller does
// not hold DisplayStateMutex, which a fill takes, unless it is the frame update thread. Also callable on a
// pipeline that was never built or was torn down.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Stop(DEVICE_CONTEXT* context);

// Around a sleep: the stream pauses, without any register access, and continues if it ran before.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Suspend(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Resume(DEVICE_CONTEXT* context);

// The display was switched off in the meantime: a paused stream stays stopped. Touches no register.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_StopSuspended(DEVICE_CONTEXT* context);

// Stops for good and ends the thread; returns when the thread is gone and nothing is in flight. The thread
// may still take RenderStartStopMutex before it sees that it must end.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Shutdown(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Render.RenderStartStopMutex);

// Whether the stream runs. A stop may follow at once: only a fill keeps it from completing.
_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN RENDER_IsRunning(const DEVICE_CONTEXT* context);

// Between a RENDER_BeginFill that returned TRUE and RENDER_EndFill the pipeline does not change: a stop
// waits. In between the thread waits for nothing that a stopping task may hold: no MonitorMutex, no
// RenderStartStopMutex. FALSE: the pipeline is stopped. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN RENDER_BeginFill(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Render.PendingListLock);
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_EndFill(DEVICE_CONTEXT* context);
