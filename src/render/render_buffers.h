// The memory that frames are built in: four render buffers, the MDLs by which the USB stack reads them, and
// the staging buffer of the compression.
#pragma once

#include "device/device_context.h"

// The four render buffers, which live as long as the device. At device add. Fails with the framework's status
// and leaves none behind.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_CreateBuffers(DEVICE_CONTEXT* context);

// Fills the render buffers with zeros. At hardware preparation.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_ClearBuffers(DEVICE_CONTEXT* context);

// Allocates the staging buffer, when the current mode is compressed, and new MDLs of at most `length` bytes
// over the render buffers. The stream is stopped. Takes RenderStartStopMutex.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_PrepareRenderBuffers(DEVICE_CONTEXT* context, ULONG length);

// Of a context that is not in flight.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_FreeMdls(RENDER_CONTEXT* renderContext);

_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_DeleteCompressionStaging(DEVICE_CONTEXT* context)
    TSA_REQUIRES(context->Render.RenderStartStopMutex);
