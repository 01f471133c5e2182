// Life of the render pipeline, from hardware preparation to hardware release.
#pragma once

#include "device/device_context.h"

// At device add, once: a client that outlives a stop and restart of the device may be waiting for these.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_InitializeEvents(DEVICE_CONTEXT* context);

// Builds the pipeline and starts its thread. A failure has been undone.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_Initialize(DEVICE_CONTEXT* context);

// Four render contexts with their requests, all on AvailableList. Part of RENDER_Initialize, which undoes a
// failure.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_CreateRenderContexts(DEVICE_CONTEXT* context);

// Ends thread and transfers and deletes everything but the render buffers. Works on a partly built pipeline,
// and twice.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_Uninitialize(DEVICE_CONTEXT* context);
