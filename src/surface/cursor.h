// The software pointer: its shape in the display's orientation, and its drawing into a frame.
#pragma once

#include "device/client_context.h"

struct DEVICE_CONTEXT;
struct FRAME_BUFFER_CONTEXT;

// The body of CMD_SET_POINTER; either may be null. A shape that does not fit is refused: the old one stays.
// PASSIVE_LEVEL.
void CURSOR_Update(DEVICE_CONTEXT* context, const POINTER_POSITION* position, const POINTER_SHAPE* shape);

// Copies a client's shape into `image`. FALSE, with `image` as it was, when the bits do not fit into it or
// the rows are shorter than the width needs, or when the turned shape would not fit.
[[nodiscard]] BOOLEAN CURSOR_StoreShape(CURSOR_IMAGE* image, const POINTER_SHAPE* shape);

// Turns `source`, in the client's orientation, by `rotation` (DISPLAY_ROTATION; any other value: none).
// FALSE, with `rotated` as it was, when the turned rows do not fit.
[[nodiscard]] BOOLEAN CURSOR_RotateShape(const CURSOR_IMAGE* source, ULONG rotation, CURSOR_IMAGE* rotated);

// Where a pointer at desktop position (x, y) stands in the frame. `width` and `height` are those of the shape
// in the client's orientation. 32-bit wrap-around arithmetic, read as signed.
struct CURSOR_POSITION {
    LONG X;
    LONG Y;
};
CURSOR_POSITION CURSOR_RotatePosition(ULONG rotation, ULONG desktopWidth, ULONG desktopHeight, ULONG width,
                                      ULONG height, ULONG x, ULONG y);

// One bit of a mask: the leftmost pixel of a byte is its most significant bit.
void CURSOR_SetMaskBit(UCHAR* mask, ULONG pitch, ULONG x, ULONG y, ULONG value);
BOOLEAN CURSOR_GetMaskBit(const UCHAR* mask, ULONG pitch, ULONG x, ULONG y);

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
[[nodiscard]] BOOLEAN CURSOR_ClipToFrame(ULONG frameWidth, ULONG frameHeight, const CURSOR_IMAGE* image,
                                         LONG x, LONG y, CURSOR_AREA* area);

// One pixel of the frame under one of the image. Byte 3 of colour shapes stays the frame's.
ULONG CURSOR_BlendMonochrome(ULONG framePixel, BOOLEAN andBit, BOOLEAN xorBit);
ULONG CURSOR_BlendAlpha(ULONG framePixel, ULONG imagePixel);
ULONG CURSOR_BlendMasked(ULONG framePixel, ULONG imagePixel);

// Draws an image and saves what it covers. Draws nothing when the area reaches beyond the pixel buffer or the
// save area, for an unknown type, and without memory. The caller owns the pixels. Up to DISPATCH_LEVEL.
void CURSOR_Compose(FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_IMAGE* image, LONG x, LONG y);

// Puts back what the last compose covered.
void CURSOR_Restore(FRAME_BUFFER_CONTEXT* frameBuffer);
