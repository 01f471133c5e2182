// The shape of the software pointer: checking, storing and turning it. Pure functions; any IRQL.
#pragma once

#include "device/surface_context.h"

constexpr ULONG CURSOR_PIXEL_BYTES = 4;

// Monochrome types have bit 0 set: two masks of one bit per pixel, AND and then XOR.
constexpr BOOLEAN CURSOR_IsMonochrome(ULONG type) {
    return (type & POINTER_MONOCHROME) != 0;
}

// The bytes that an image takes. FALSE when it does not fit into a CURSOR_IMAGE or its rows overlap. Width
// and height of an image that fits are small enough for 32-bit arithmetic on its bytes.
_Success_(return != FALSE)
_Must_inspect_result_
[[nodiscard]] BOOLEAN CURSOR_MeasureImage(const CURSOR_IMAGE* image, _Out_ ULONG* byteCount);

// Copies a client's shape into `image`. FALSE, with `image` as it was, when the bits do not fit into it or
// the rows are shorter than the width needs, or when the turned shape would not fit.
_Must_inspect_result_
[[nodiscard]] BOOLEAN CURSOR_StoreShape(_Inout_ CURSOR_IMAGE* image, const POINTER_SHAPE* shape);

// Turns `source`, in the client's orientation, by `rotation` (DISPLAY_ROTATION; any other value: none).
// FALSE, with `rotated` as it was, when the turned rows do not fit.
_Must_inspect_result_
[[nodiscard]] BOOLEAN CURSOR_RotateShape(const CURSOR_IMAGE* source, ULONG rotation,
                                         _Inout_ CURSOR_IMAGE* rotated);

// Where a pointer at desktop position (x, y) is in the frame. `width` and `height` are those of the shape
// in the client's orientation. 32-bit wrap-around arithmetic, read as signed.
struct CURSOR_POSITION {
    LONG X;
    LONG Y;
};
CURSOR_POSITION CURSOR_RotatePosition(ULONG rotation, ULONG desktopWidth, ULONG desktopHeight, ULONG width,
                                      ULONG height, ULONG x, ULONG y);

// One bit of a mask: the leftmost pixel of a byte is its most significant bit.
void CURSOR_SetMaskBit(_Inout_ UCHAR* mask, ULONG pitch, ULONG x, ULONG y, ULONG value);
BOOLEAN CURSOR_GetMaskBit(const UCHAR* mask, ULONG pitch, ULONG x, ULONG y);
