// Start, stop, pause and end of the stream. They take RenderStartStopMutex, which means "the pipeline changes
// its state": a task that also changes the mode holds it around both.
#pragma once

#include "device/device_context.h"

// The stream runs; the newest presented frame goes out at once. After a shutdown it stays stopped. Always
// STATUS_SUCCESS.
_IRQL_requires_(PASSIVE_LEVEL)
NTSTATUS RENDER_Start(DEVICE_CONTEXT* context);

// When it returns no render buffer is being filled, nothing is queued, the frame update thread uses neither
// mode nor staging buffer, and every context whose transfers have come back is available. Blocks for 100 ms
// and for what is in flight (at most 3.1 seconds). The caller does not hold DisplayStateMutex unless it is
// the frame update thread. Also callable on a pipeline that was never built or is gone.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Stop(DEVICE_CONTEXT* context);

// Around a sleep: the stream pauses, as by a stop but without touching the adapter, and goes on if it ran.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Suspend(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Resume(DEVICE_CONTEXT* context);

// The display was switched off in the meantime: a paused stream stays stopped. Touches no register.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_StopSuspended(DEVICE_CONTEXT* context);

// Stops for good and ends the thread; returns when the thread is gone and nothing is in flight. The caller
// does not hold RenderStartStopMutex: the thread may want it before it sees that it must end.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Shutdown(DEVICE_CONTEXT* context);

// Between a RENDER_BeginFill that returned TRUE and RENDER_EndFill the pipeline does not change: a stop
// waits. In between the thread waits for nothing that a stopping task may hold: no MonitorMutex, no
// RenderStartStopMutex. FALSE: the pipeline is stopped. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN RENDER_BeginFill(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_EndFill(DEVICE_CONTEXT* context);
