// Drawing the software pointer into a frame, and restoring the pixels under it.
#pragma once

#include "surface/frame_buffer.h"

// The part of an image that is drawn, in pixels of frame and image.
struct CURSOR_AREA {
    ULONG FrameX;
    ULONG FrameY;
    ULONG ImageX;
    ULONG ImageY;
    ULONG Width;
    ULONG Height;
};

// Clips an image at (x, y) to a frame. The last column and the last row of the frame are never covered. FALSE
// when nothing is left.
_Success_(return != FALSE)
_Must_inspect_result_
[[nodiscard]] BOOLEAN CURSOR_ClipToFrame(ULONG frameWidth, ULONG frameHeight, const CURSOR_IMAGE* image,
                                         LONG x, LONG y, _Out_ CURSOR_AREA* area);

// One pixel of the frame under one of the image. Byte 3 of the frame's pixel stays under a color shape.
ULONG CURSOR_BlendMonochrome(ULONG framePixel, BOOLEAN andBit, BOOLEAN xorBit);
ULONG CURSOR_BlendAlpha(ULONG framePixel, ULONG imagePixel);
ULONG CURSOR_BlendMasked(ULONG framePixel, ULONG imagePixel);

// Draws an image and saves what it covers. Draws nothing when the area reaches beyond the pixel buffer or the
// save area, for an unknown type, and without memory. The caller owns the pixels
// (surface/frame_pixels.h).
_IRQL_requires_max_(DISPATCH_LEVEL)
void CURSOR_Compose(FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_IMAGE* image, LONG x, LONG y);

// Puts back what the last CURSOR_Compose covered. The caller owns the pixels.
_IRQL_requires_max_(DISPATCH_LEVEL)
void CURSOR_Restore(FRAME_BUFFER_CONTEXT* frameBuffer);
