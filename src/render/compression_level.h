// The compression level of the stream, between the bounds of the mode in force. A mode set resets it; the
// frame update thread raises and lowers it according to the size of the frames.
#pragma once

#include "device/device_context.h"

// To the level that the new mode begins with. Nothing happens while the pipeline does not exist.
_IRQL_requires_max_(DISPATCH_LEVEL)
void COMPRESSION_ResetLevel(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex);

_IRQL_requires_max_(DISPATCH_LEVEL)
ULONG COMPRESSION_CurrentLevel(DEVICE_CONTEXT* context);

// By one; no effect at the bound.
_IRQL_requires_max_(DISPATCH_LEVEL)
void COMPRESSION_RaiseLevel(DEVICE_CONTEXT* context);
_IRQL_requires_max_(DISPATCH_LEVEL)
void COMPRESSION_LowerLevel(DEVICE_CONTEXT* context);
