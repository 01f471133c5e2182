// A new mode under a stopped stream.
#pragma once

#include "device/device_context.h"

// Programs the mode (display/mode_timing.h, with its statuses) and starts the counts of the stream anew.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_ProgramMode(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters)
    TSA_REQUIRES(context->Render.RenderStartStopMutex);
