// Frames that the adapter dropped: reports are collected in a leaky bucket, and a check timer lets the output
// try 24 bits again after a while. What follows from them: render/output_switch.h.
#pragma once

#include "device/device_context.h"

constexpr ULONG DROP_FRAME_CHECK_PERIOD_MS = 5000;

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_CreateDropFrameEventCheckTimer(DEVICE_CONTEXT* context);

// Waits for a running callback.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_DeleteDropFrameEventCheckTimer(DEVICE_CONTEXT* context);

_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_TIMER RENDER_DropFrameEventCheckTimerFunc;

// From monitor attach to monitor detach. The stop does not wait for a running callback. No effect without
// the timer.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_StartDropFrameEventCheckTimer(DEVICE_CONTEXT* context, ULONG milliseconds);
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_StopDropFrameEventCheckTimer(DEVICE_CONTEXT* context);

// After a switch to 16 bits: the check period begins anew. On the frame update thread; the caller does not
// hold DropFrameCheckMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_RestartDropFrameCheck(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Display.DropFrameCheckMutex);

// At mode set and monitor attach: no check period has passed, and no switch back to 24 bits was tried.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_ResetDropFrameCheck(DEVICE_CONTEXT* context);

// When the stream stops: its dropped frames are forgotten, and with them the fallback to 16 bits, which lasts
// as long as the stream that dropped frames.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_ForgetDroppedFrames(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// When the stream pauses for a sleep: what was reported before it says nothing about the stream after it. A
// fallback to 16 bits stays.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_ForgetFrameErrors(DEVICE_CONTEXT* context);

// While suspended, the status work item ignores reports of dropped frames: the stream is being stopped or the
// adapter is not in D0. The work item asks and acts under DisplayStateMutex: what it does is over when a
// caller has suspended them. Of two callers the later one decides.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_SuspendFrameErrors(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_ResumeFrameErrors(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN RENDER_FrameErrorsSuspended(const DEVICE_CONTEXT* context)
    TSA_REQUIRES(context->Display.DisplayStateMutex);

// One report of a dropped frame. It counts when the bucket is full. Without the bucket, and while frame
// errors are suspended, it counts at once.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_HandleFrameError(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Control.MonitorMutex);

// At a new mode.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_EmptyFrameErrorBucket(DEVICE_CONTEXT* context);

// A completed transfer of a frame lowers the bucket by one.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_DecayFrameErrorBucket(DEVICE_CONTEXT* context);
