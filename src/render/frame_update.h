// One frame update: converts the frame that the client presented last into a render buffer and has it sent.
// On the frame update thread.
#pragma once

#include "device/device_context.h"

struct FRAME_BUFFER_CONTEXT;

// Nothing is sent when the pipeline is stopped or the newest frame does not have the size of the mode.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_FrameUpdate(DEVICE_CONTEXT* context);

// Fills the next render buffer from a frame buffer of the mode's size and queues it. The caller holds a
// reference and is between RENDER_BeginFill and RENDER_EndFill.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Private_UpdateRenderingFrameBuffer(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);
