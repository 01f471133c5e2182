// A change of the mode while the stream is stopped.
#pragma once

#include "device/device_context.h"

// Programs the mode (display/mode_timing.h, with its statuses) and resets the compression level and the count
// of frame errors. STATUS_INVALID_PARAMETER: nothing was reset.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_ProgramMode(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters)
    TSA_REQUIRES(context->Render.RenderStartStopMutex);
