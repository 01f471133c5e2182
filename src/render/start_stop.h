// Start, stop, pause and end of the stream. All at PASSIVE_LEVEL; they take RenderStartStopMutex, which
// stands for "the pipeline changes its state": whoever also changes the mode holds it around both.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// The stream runs; the newest presented frame goes out at once. After a shutdown it stays stopped. Always
// STATUS_SUCCESS.
NTSTATUS RENDER_Start(DEVICE_CONTEXT* context);

// When it returns no render buffer is being filled, nothing is queued, the frame update thread uses neither
// mode nor staging buffer, and every context whose transfers have come back is available. Blocks for 100 ms
// and for what is in flight (at most 3.1 seconds). The caller does not hold DisplayStateMutex unless it is
// the frame update thread. Also callable on a pipeline that was never built or is gone.
void RENDER_Stop(DEVICE_CONTEXT* context);

// Around a sleep: the stream pauses, as by a stop but without touching the adapter, and goes on if it ran.
void RENDER_Suspend(DEVICE_CONTEXT* context);
void RENDER_Resume(DEVICE_CONTEXT* context);

// The display was switched off in the meantime: a paused stream stays stopped. Touches no register.
void RENDER_StopSuspended(DEVICE_CONTEXT* context);

// Stops for good and ends the thread; returns when the thread is gone and nothing is in flight. The caller
// does not hold RenderStartStopMutex: the thread may want it before it sees that it must end.
void RENDER_Shutdown(DEVICE_CONTEXT* context);
