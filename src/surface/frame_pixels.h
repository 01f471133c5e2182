// Ownership of a frame buffer's pixels. They belong to one task at a time: the present whose client fills
// them, the pointer update that draws into them, or the frame update thread that converts them. So no frame
// goes out half filled, and no saved pixels are restored over newer ones. Ownership is an event and not a
// lock, because the client is called while its present owns the pixels.
//
// The caller holds a reference of the frame buffer.
#pragma once

#include "surface/frame_buffer.h"

// For a present: waits without a limit until the earlier owners have finished. From here to
// FRAMEBUFFER_EndFill the client fills the pixels; they stay the caller's after it.
_IRQL_requires_(PASSIVE_LEVEL)
void FRAMEBUFFER_AcquireToFill(FRAME_BUFFER_CONTEXT* frameBuffer);
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_EndFill(FRAME_BUFFER_CONTEXT* frameBuffer);

// Whether the caller is inside such a fill of its own.
_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN FRAMEBUFFER_IsFilledByCaller(const FRAME_BUFFER_CONTEXT* frameBuffer);

// For a pointer update. FALSE, also after a wait for another owner: the client is filling the frame buffer.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN FRAMEBUFFER_AcquireUnlessFilled(FRAME_BUFFER_CONTEXT* frameBuffer);

// For the frame update thread, which owns the pixels for the conversion, not for a wait. It waits for clients
// that fill the frame. FALSE: the stream was stopped.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN FRAMEBUFFER_AcquireToRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);

_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_ReleasePixels(FRAME_BUFFER_CONTEXT* frameBuffer);
