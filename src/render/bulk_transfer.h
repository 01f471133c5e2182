// Formats the USB requests of a render context.
#pragma once

#include "device/device_context.h"

// Makes the requests of a context ready to be sent: the one of its frame and, if the mode has a zero-length
// transfer after each frame, the one of that. Their completion routines get the RENDER_CONTEXT. Neither
// request is queued or sent. STATUS_INSUFFICIENT_RESOURCES: the render buffer has no MDL.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_FormatRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                             PFN_WDF_REQUEST_COMPLETION_ROUTINE renderCompleted,
                                             PFN_WDF_REQUEST_COMPLETION_ROUTINE zeroLengthCompleted);

// The zero-length request alone.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_FormatZeroLength(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                               PFN_WDF_REQUEST_COMPLETION_ROUTINE completed);
