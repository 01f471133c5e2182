// The USB requests of a render context.
#pragma once

#include "device/device_context.h"

// Makes both requests of a context ready to be sent, with the given completion routines,
// whose context is the RENDER_CONTEXT. Neither of them is out. STATUS_INSUFFICIENT_RESOURCES: its render
// buffer has no MDL.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_FormatRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                             PFN_WDF_REQUEST_COMPLETION_ROUTINE renderCompleted,
                                             PFN_WDF_REQUEST_COMPLETION_ROUTINE zeroLengthCompleted);
