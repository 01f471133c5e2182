#include "surface/cursor_drawing.h"

#include "base/pool.h"
#include "surface/cursor_pixels.h"
#include "surface/cursor_shape.h"

namespace {

constexpr ULONGLONG SAVE_AREA_PIXELS = CURSOR_BITS_SIZE / CURSOR_PIXEL_BYTES;

// What is left of `length` pixels that start at `position` of an axis with `limit` pixels, the last of which
// is never covered. In 64 bits, because each number is a client's.
BOOLEAN ClipAxis(ULONG limit, ULONG length, LONG position, ULONG* framePosition, ULONG* skipped,
                 ULONG* drawn) {
    const LONGLONG hidden = position < 0 ? -static_cast<LONGLONG>(position) : 0;
    const LONGLONG start = position < 0 ? 0 : position;
    const LONGLONG wanted = static_cast<LONGLONG>(length) - hidden;
    const LONGLONG room = static_cast<LONGLONG>(limit) - 1 - start;
    const LONGLONG left = wanted < room ? wanted : room;
    if (left <= 0) {
        return FALSE;
    }
    *framePosition = static_cast<ULONG>(start);
    *skipped = static_cast<ULONG>(hidden);
    *drawn = static_cast<ULONG>(left);
    return TRUE;
}

// Rows of a frame are packed, whatever pitch the client named.
ULONGLONG FrameRowBytes(const FRAME_BUFFER_CONTEXT* frameBuffer) {
    return static_cast<ULONGLONG>(frameBuffer->Width) * CURSOR_PIXEL_BYTES;
}

// The area was clipped to the frame's dimensions, which may promise more than the buffer holds. Counted in
// pixels: the bytes of the largest dimensions do not fit 64 bits.
BOOLEAN IsInsidePixelBuffer(const FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_AREA* area) {
    const ULONGLONG lastRow = static_cast<ULONGLONG>(area->FrameY) + area->Height - 1;
    const ULONGLONG end = lastRow * frameBuffer->Width + area->FrameX + area->Width;
    return end <= frameBuffer->ByteSize / CURSOR_PIXEL_BYTES;
}

UCHAR* FrameAddress(const FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_AREA* area) {
    return frameBuffer->PixelBuffer + area->FrameY * FrameRowBytes(frameBuffer) +
           static_cast<ULONGLONG>(area->FrameX) * CURSOR_PIXEL_BYTES;
}

ULONG BlendPixel(const CURSOR_IMAGE* image, const UCHAR* xorMask, ULONG column, ULONG row, ULONG framePixel) {
    if (image->Type == POINTER_MONOCHROME) {
        return CURSOR_BlendMonochrome(framePixel, CURSOR_GetMaskBit(image->Bits, image->Pitch, column, row),
                                      CURSOR_GetMaskBit(xorMask, image->Pitch, column, row));
    }
    const ULONG imagePixel = CURSOR_LoadPixel(image->Bits + row * image->Pitch + column * CURSOR_PIXEL_BYTES);
    return image->Type == POINTER_COLOR_ALPHA ? CURSOR_BlendAlpha(framePixel, imagePixel)
                                              : CURSOR_BlendMasked(framePixel, imagePixel);
}

// The frame's area with the image over it, packed into `scratch`.
void BlendArea(const CURSOR_IMAGE* image, const CURSOR_AREA* area, const UCHAR* frame,
               ULONGLONG frameRowBytes, UCHAR* scratch) {
    const UCHAR* xorMask = image->Bits + image->Height * image->Pitch;
    for (ULONG row = 0; row < area->Height; row++) {
        const UCHAR* frameRow = frame + row * frameRowBytes;
        for (ULONG column = 0; column < area->Width; column++) {
            const ULONG framePixel = CURSOR_LoadPixel(frameRow + column * CURSOR_PIXEL_BYTES);
            CURSOR_StorePixel(
                scratch, BlendPixel(image, xorMask, area->ImageX + column, area->ImageY + row, framePixel));
            scratch += CURSOR_PIXEL_BYTES;
        }
    }
}

} // namespace

BOOLEAN CURSOR_ClipToFrame(ULONG frameWidth, ULONG frameHeight, const CURSOR_IMAGE* image, LONG x, LONG y,
                           CURSOR_AREA* area) {
    return ClipAxis(frameWidth, image->Width, x, &area->FrameX, &area->ImageX, &area->Width) &&
           ClipAxis(frameHeight, image->Height, y, &area->FrameY, &area->ImageY, &area->Height);
}

ULONG CURSOR_BlendMonochrome(ULONG framePixel, BOOLEAN andBit, BOOLEAN xorBit) {
    const ULONG kept = andBit ? framePixel : 0;
    return xorBit ? ~kept : kept;
}

ULONG CURSOR_BlendAlpha(ULONG framePixel, ULONG imagePixel) {
    const LONG alpha = static_cast<LONG>(imagePixel >> 24);
    ULONG result = framePixel & 0xFF000000;
    for (ULONG shift = 0; shift < 24; shift += 8) {
        const LONG frame = static_cast<LONG>((framePixel >> shift) & 0xFF);
        const LONG image = static_cast<LONG>((imagePixel >> shift) & 0xFF);
        result |= static_cast<ULONG>(frame + (image - frame) * alpha / 255) << shift;
    }
    return result;
}

ULONG CURSOR_BlendMasked(ULONG framePixel, ULONG imagePixel) {
    const ULONG blended = (imagePixel >> 24) == 0 ? imagePixel : framePixel ^ imagePixel;
    return (framePixel & 0xFF000000) | (blended & 0x00FFFFFF);
}

// The image is blended in a scratch block first: the frame changes only once it is certain that it can be
// restored.
void CURSOR_Compose(FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_IMAGE* image, LONG x, LONG y) {
    const BOOLEAN isKnownType = image->Type == POINTER_MONOCHROME || image->Type == POINTER_COLOR_ALPHA ||
                                image->Type == POINTER_COLOR_MASKED;
    ULONG imageBytes = 0;
    CURSOR_AREA area;
    if (!isKnownType || !CURSOR_MeasureImage(image, &imageBytes) ||
        !CURSOR_ClipToFrame(frameBuffer->Width, frameBuffer->Height, image, x, y, &area) ||
        static_cast<ULONGLONG>(area.Width) * area.Height > SAVE_AREA_PIXELS ||
        !IsInsidePixelBuffer(frameBuffer, &area)) {
        return;
    }
    const ULONG rowBytes = area.Width * CURSOR_PIXEL_BYTES;
    UCHAR* scratch = static_cast<UCHAR*>(
        ExAllocatePoolWithTag(DriverPoolType, rowBytes * area.Height, POOL_TAG_FRAME_BUFFER));
    if (scratch == nullptr) {
        return; // The frame goes out without the cursor.
    }
    UCHAR* frame = FrameAddress(frameBuffer, &area);
    const ULONGLONG frameRowBytes = FrameRowBytes(frameBuffer);
    BlendArea(image, &area, frame, frameRowBytes, scratch);

    frameBuffer->SavedAreaStart = frame;
    frameBuffer->SavedWidth = area.Width;
    frameBuffer->SavedHeight = area.Height;
    frameBuffer->SavedValid = TRUE;
    for (ULONG row = 0; row < area.Height; row++) {
        UCHAR* frameRow = frame + row * frameRowBytes;
        RtlCopyMemory(frameBuffer->SaveArea + row * rowBytes, frameRow, rowBytes);
        RtlCopyMemory(frameRow, scratch + row * rowBytes, rowBytes);
    }
    ExFreePoolWithTag(scratch, POOL_TAG_FRAME_BUFFER);
}

void CURSOR_Restore(FRAME_BUFFER_CONTEXT* frameBuffer) {
    if (!frameBuffer->SavedValid) {
        return;
    }
    const ULONG rowBytes = frameBuffer->SavedWidth * CURSOR_PIXEL_BYTES;
    const ULONGLONG frameRowBytes = FrameRowBytes(frameBuffer);
    for (ULONG row = 0; row < frameBuffer->SavedHeight; row++) {
        RtlCopyMemory(frameBuffer->SavedAreaStart + row * frameRowBytes,
                      frameBuffer->SaveArea + row * rowBytes, rowBytes);
    }
    frameBuffer->SavedValid = FALSE;
}
