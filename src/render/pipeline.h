// Life of the render pipeline, from hardware preparation to hardware release. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// At device add, once: a client that outlives a stop and restart of the device may be waiting for these.
void RENDER_InitializeLocks(DEVICE_CONTEXT* context);

// Builds the pipeline and starts its thread. A failure has been undone.
[[nodiscard]] NTSTATUS RENDER_Initialize(DEVICE_CONTEXT* context);

// Four render contexts with their requests, all on AvailableList. Part of RENDER_Initialize, which undoes it.
[[nodiscard]] NTSTATUS RENDER_CreateRenderContexts(DEVICE_CONTEXT* context);

// The staging buffer, when the current mode is compressed, and new MDLs of at most `length` bytes over the
// render buffers. The stream is stopped. Takes RenderStartStopMutex.
[[nodiscard]] NTSTATUS RENDER_PrepareRenderBuffers(DEVICE_CONTEXT* context, ULONG length);

// Ends thread and transfers and deletes everything but the render buffers. Works on a partly built pipeline,
// and twice.
void RENDER_Uninitialize(DEVICE_CONTEXT* context);
