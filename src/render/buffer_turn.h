// What a frame update waits for: a render context, and the next render buffer in turn. On the frame update
// thread.
#pragma once

#include "device/device_context.h"

// A context for the next frame, or null when the pipeline was stopped first.
_IRQL_requires_(PASSIVE_LEVEL)
RENDER_CONTEXT* RENDER_WaitForContext(DEVICE_CONTEXT* context);

// The next render buffer in turn that no transfer uses, or RENDER_BUFFER_NONE when the pipeline was stopped
// first.
_IRQL_requires_(PASSIVE_LEVEL)
ULONG RENDER_WaitForBuffer(DEVICE_CONTEXT* context);

// After DispatchRequestEvent: a dispatch ended early because transfers complete as fast as they are sent.
// This continues it, after a pause in which other tasks get the processor.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_ContinueDispatch(DEVICE_CONTEXT* context);
