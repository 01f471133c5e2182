// One frame update: the frame that the client presented last becomes the bytes of a render buffer. On the
// frame update thread.
#pragma once

#include "device/device_context.h"

struct FRAME_BUFFER_CONTEXT;

// Nothing happens when the pipeline is stopped or the newest frame does not fit the mode.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_FrameUpdate(DEVICE_CONTEXT* context);

// Fills the next render buffer from a frame buffer of the mode's size and queues it. The caller holds a
// reference and is between RENDER_BeginFill and RENDER_EndFill.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Private_UpdateRenderingFrameBuffer(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);
