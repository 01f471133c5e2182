// The frame update thread: turns the frame that the client presented last into the bytes of a render buffer.
//
// The functions below run on that thread, at PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;
struct FRAME_BUFFER_CONTEXT;

// Starts the thread and creates the timers. When only a timer fails, the thread runs: RENDER_Shutdown ends
// it.
[[nodiscard]] NTSTATUS THREAD_CreateFrameUpdateThread(DEVICE_CONTEXT* context);

KSTART_ROUTINE THREAD_FrameUpdateProcess; // start context: THREAD_START_CONTEXT

// One frame update. Nothing happens when the pipeline is stopped or the newest frame does not fit the mode.
void RENDER_FrameUpdate(DEVICE_CONTEXT* context);

// Fills the next render buffer from a frame buffer of the mode's size and queues it. The caller holds a
// reference and is between RENDER_BeginFill and RENDER_EndFill.
void RENDER_Private_UpdateRenderingFrameBuffer(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);

// Switches the output to 16 bits after dropped frames, and back to 24 bits later. Stops and starts the stream
// for that. Not between RENDER_BeginFill and RENDER_EndFill.
void RENDER_AdjustPixelBytes(DEVICE_CONTEXT* context);

// Between a RENDER_BeginFill that returned TRUE and RENDER_EndFill the pipeline stays as it is: a stop waits.
// In between the thread waits for nothing that a stopping thread may hold: no MonitorMutex, no
// RenderStartStopMutex. FALSE: the pipeline is stopped.
[[nodiscard]] BOOLEAN RENDER_BeginFill(DEVICE_CONTEXT* context);
void RENDER_EndFill(DEVICE_CONTEXT* context);
