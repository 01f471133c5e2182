// Ownership of a frame buffer's pixels. They belong to one task at a time: the present whose client fills
// them, the pointer update that draws into them, or the frame update thread that converts them. So no frame
// goes out half filled, and no saved pixels are restored over newer ones. Ownership is an event and not a
// lock, because the client is called while its present owns the pixels.
//
// The caller holds a reference of the frame buffer.
#pragma once

#include "surface/frame_buffer.h"

// Waits without a limit until the owner has finished.
_IRQL_requires_(PASSIVE_LEVEL)
void FRAMEBUFFER_AcquirePixels(FRAME_BUFFER_CONTEXT* frameBuffer);

// The same, unless the client is filling the frame buffer. FALSE: it is.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN FRAMEBUFFER_AcquireUnlessFilled(FRAME_BUFFER_CONTEXT* frameBuffer);

_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_ReleasePixels(FRAME_BUFFER_CONTEXT* frameBuffer);

// The frame update thread owns the pixels from a BeginRead that returned TRUE to EndRead: for the conversion,
// not for a wait. FALSE: the pipeline was stopped meanwhile.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN FRAMEBUFFER_BeginRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_EndRead(FRAME_BUFFER_CONTEXT* frameBuffer);
