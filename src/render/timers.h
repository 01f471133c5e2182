// Feedback loops: the compression level follows the size of the frames, and dropped frames are collected in a
// leaky bucket that makes the output fall back to 16 bits.
#pragma once

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

constexpr ULONG DROP_FRAME_CHECK_PERIOD_MS = 5000;

// PASSIVE_LEVEL; part of starting the frame update thread.
[[nodiscard]] NTSTATUS RENDER_CreateCompressionAutoUpdateTimer(DEVICE_CONTEXT* context);
[[nodiscard]] NTSTATUS RENDER_CreateDropFrameEventCheckTimer(DEVICE_CONTEXT* context);
void RENDER_DeleteTimers(DEVICE_CONTEXT* context); // waits for running callbacks

// Run at PASSIVE_LEVEL.
EVT_WDF_TIMER RENDER_CompressionAutoUpdateTimerFunc;
EVT_WDF_TIMER RENDER_DropFrameEventCheckTimerFunc;

// From monitor attach to monitor detach. The stop does not wait for a running callback. No effect without
// the timer.
void RENDER_StartDropFrameEventCheckTimer(DEVICE_CONTEXT* context, ULONG milliseconds);
void RENDER_StopDropFrameEventCheckTimer(DEVICE_CONTEXT* context);

// The decision after a compressed frame of `length` bytes. On the frame update thread.
void RENDER_CompressionAutoUpdate(DEVICE_CONTEXT* context, ULONGLONG length);

// Has the newest frame converted and sent again in a while. For a frame that could not be sent while nothing
// else was in flight. Up to DISPATCH_LEVEL.
void RENDER_RepeatFrameLater(DEVICE_CONTEXT* context);

// One report of a dropped frame. The caller holds MonitorMutex. PASSIVE_LEVEL.
void RENDER_HandleFrameError(DEVICE_CONTEXT* context);

// A completed frame lowers the bucket by one. Up to DISPATCH_LEVEL.
void RENDER_DecayFrameErrorBucket(DEVICE_CONTEXT* context);
