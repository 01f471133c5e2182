// Hand-offs of frames to the frame update thread: by a present, by a pointer that moved, and when the stream
// starts anew.
#pragma once

#include "surface/frame_buffer.h"

// Has the client fill the frame buffer (created when there is none of that identifier) and hands it over.
// STATUS_INSUFFICIENT_RESOURCES when it cannot be created. The client is called with no lock held; the
// present blocks until the client and earlier owners of the pixels have finished.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS FRAMEBUFFER_Present(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request)
    TSA_EXCLUDES(context->Surface.SubmitMutex, context->Surface.FrameBufferListLock);

// Draws the cursor and makes the frame the newest one, while the pipeline runs and the display is on. The
// caller owns the pixels.
_IRQL_requires_(PASSIVE_LEVEL)
void FRAMEBUFFER_SubmitToRender(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer)
    TSA_REQUIRES(context->Surface.SubmitMutex) TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// Shows pointer changes: hands the current frame over again, unless its client is filling it: that present
// then draws the pointer in its state of that time.
_IRQL_requires_(PASSIVE_LEVEL)
void FRAMEBUFFER_ResubmitCurrent(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Surface.SubmitMutex);

// The same when the stream starts anew: what the client presented while it was stopped was not handed over. A
// frame buffer that no present has filled yet is left alone.
_IRQL_requires_(PASSIVE_LEVEL)
void FRAMEBUFFER_ResubmitPresented(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Surface.SubmitMutex);

// A frame update is wanted; the frame update thread clears the request when it begins one.
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_RequestUpdate(DEVICE_CONTEXT* context);
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_ClearUpdateRequest(DEVICE_CONTEXT* context);
