// The switch between 24-bit and 16-bit output while the stream runs. On the frame update thread.
#pragma once

#include "device/device_context.h"

// Whether frames were dropped with 24-bit output, or a check period has passed with 16-bit output. Between
// RENDER_BeginFill and RENDER_EndFill.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN RENDER_WantsOtherPixelBytes(const DEVICE_CONTEXT* context);

// Switches the output to 16 bits after dropped frames, and back to 24 bits later. Stops and starts the stream
// for that. Not between RENDER_BeginFill and RENDER_EndFill. Takes RenderStartStopMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_AdjustPixelBytes(DEVICE_CONTEXT* context);
