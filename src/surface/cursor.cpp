#include "surface/cursor.h"

#include "device/device_context.h"
#include "surface/frame_buffer.h"

namespace {

constexpr ULONG PIXEL_BYTES = 4;
constexpr ULONGLONG SAVE_AREA_PIXELS = CURSOR_BITS_SIZE / PIXEL_BYTES;

ULONG LoadPixel(const UCHAR* address) {
    ULONG pixel;
    RtlCopyMemory(&pixel, address, sizeof(pixel));
    return pixel;
}

void StorePixel(UCHAR* address, ULONG pixel) {
    RtlCopyMemory(address, &pixel, sizeof(pixel));
}

// Monochrome types have bit 0 set: two masks of one bit per pixel, AND and then XOR.
constexpr BOOLEAN IsMonochrome(ULONG type) {
    return (type & POINTER_MONOCHROME) != 0;
}

constexpr ULONGLONG PackedPitch(ULONG type, ULONG width) {
    return IsMonochrome(type) ? (static_cast<ULONGLONG>(width) + 7) / 8
                              : static_cast<ULONGLONG>(width) * PIXEL_BYTES;
}

// The bytes that a shape takes, or nothing when it does not fit into an image or its rows overlap. Width and
// height of what passes are small enough for 32-bit arithmetic on its bytes.
BOOLEAN MeasureBits(ULONG type, ULONG width, ULONG height, ULONGLONG pitch, ULONG* byteCount) {
    if (pitch < PackedPitch(type, width) || pitch > CURSOR_BITS_SIZE) {
        return FALSE;
    }
    const ULONGLONG bytes = pitch * height * (IsMonochrome(type) ? 2 : 1);
    if (bytes > CURSOR_BITS_SIZE) {
        return FALSE;
    }
    *byteCount = static_cast<ULONG>(bytes);
    return TRUE;
}

// Whether the turned image fits, too, whichever way the display stands later.
BOOLEAN FitsEveryRotation(ULONG type, ULONG width, ULONG height) {
    ULONG byteCount = 0;
    return MeasureBits(type, width, height, PackedPitch(type, width), &byteCount) &&
           MeasureBits(type, height, width, PackedPitch(type, height), &byteCount);
}

BOOLEAN MeasureImage(const CURSOR_IMAGE* image, ULONG* byteCount) {
    return MeasureBits(image->Type, image->Width, image->Height, image->Pitch, byteCount);
}

constexpr BOOLEAN IsTurned(ULONG rotation) {
    return rotation == ROTATION_QUARTER || rotation == ROTATION_HALF || rotation == ROTATION_THREE_QUARTERS;
}

constexpr BOOLEAN SwapsAxes(ULONG rotation) {
    return rotation == ROTATION_QUARTER || rotation == ROTATION_THREE_QUARTERS;
}

struct PIXEL_PLACE {
    ULONG Column;
    ULONG Row;
};

// Where the pixel at (column, row) of a `width` x `height` image goes in a turn.
PIXEL_PLACE TurnedPlace(ULONG rotation, ULONG width, ULONG height, ULONG column, ULONG row) {
    switch (rotation) {
    case ROTATION_QUARTER:
        return {row, width - 1 - column};
    case ROTATION_HALF:
        return {width - 1 - column, height - 1 - row};
    default:
        return {height - 1 - row, column};
    }
}

// Calls `move(place, column, row)` for every pixel of an image.
template <typename Move>
void ForEachTurnedPixel(const CURSOR_IMAGE* source, ULONG rotation, Move move) {
    for (ULONG row = 0; row < source->Height; row++) {
        for (ULONG column = 0; column < source->Width; column++) {
            move(TurnedPlace(rotation, source->Width, source->Height, column, row), column, row);
        }
    }
}

void TurnColor(const CURSOR_IMAGE* source, ULONG rotation, CURSOR_IMAGE* rotated) {
    ForEachTurnedPixel(source, rotation, [source, rotated](PIXEL_PLACE place, ULONG column, ULONG row) {
        const UCHAR* from = source->Bits + row * source->Pitch + column * PIXEL_BYTES;
        StorePixel(rotated->Bits + place.Row * rotated->Pitch + place.Column * PIXEL_BYTES, LoadPixel(from));
    });
}

void TurnMonochrome(const CURSOR_IMAGE* source, ULONG rotation, CURSOR_IMAGE* rotated) {
    const UCHAR* sourceXor = source->Bits + source->Height * source->Pitch;
    UCHAR* rotatedXor = rotated->Bits + rotated->Height * rotated->Pitch;
    ForEachTurnedPixel(source, rotation, [=](PIXEL_PLACE place, ULONG column, ULONG row) {
        CURSOR_SetMaskBit(rotated->Bits, rotated->Pitch, place.Column, place.Row,
                          CURSOR_GetMaskBit(source->Bits, source->Pitch, column, row));
        CURSOR_SetMaskBit(rotatedXor, rotated->Pitch, place.Column, place.Row,
                          CURSOR_GetMaskBit(sourceXor, source->Pitch, column, row));
    });
}

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

// Rows of a frame are packed for everyone who reads or draws, whatever pitch the client named.
ULONGLONG FrameRowBytes(const FRAME_BUFFER_CONTEXT* frameBuffer) {
    return static_cast<ULONGLONG>(frameBuffer->Width) * PIXEL_BYTES;
}

// The area was clipped to the frame's dimensions, which may promise more than the buffer holds. Counted in
// pixels: the bytes of the largest dimensions do not fit 64 bits.
BOOLEAN IsInsidePixelBuffer(const FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_AREA* area) {
    const ULONGLONG lastRow = static_cast<ULONGLONG>(area->FrameY) + area->Height - 1;
    const ULONGLONG end = lastRow * frameBuffer->Width + area->FrameX + area->Width;
    return end <= frameBuffer->ByteSize / PIXEL_BYTES;
}

UCHAR* FrameAddress(const FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_AREA* area) {
    return frameBuffer->PixelBuffer + area->FrameY * FrameRowBytes(frameBuffer) +
           static_cast<ULONGLONG>(area->FrameX) * PIXEL_BYTES;
}

ULONG BlendPixel(const CURSOR_IMAGE* image, const UCHAR* xorMask, ULONG column, ULONG row, ULONG framePixel) {
    if (image->Type == POINTER_MONOCHROME) {
        return CURSOR_BlendMonochrome(framePixel, CURSOR_GetMaskBit(image->Bits, image->Pitch, column, row),
                                      CURSOR_GetMaskBit(xorMask, image->Pitch, column, row));
    }
    const ULONG imagePixel = LoadPixel(image->Bits + row * image->Pitch + column * PIXEL_BYTES);
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
            const ULONG framePixel = LoadPixel(frameRow + column * PIXEL_BYTES);
            StorePixel(scratch,
                       BlendPixel(image, xorMask, area->ImageX + column, area->ImageY + row, framePixel));
            scratch += PIXEL_BYTES;
        }
    }
}

// Takes over a position. TRUE when it, or the pointer's visibility, has changed.
BOOLEAN UpdatePosition(CLIENT_CONTEXT* client, const POINTER_POSITION* position)
    TSA_REQUIRES(client->SubmitMutex);
BOOLEAN UpdatePosition(CLIENT_CONTEXT* client, const POINTER_POSITION* request) {
    const POINTER_POSITION position = *request; // once: it is the caller's memory
    const BOOLEAN visible = position.Flags & 1;
    const BOOLEAN changed = position.X != client->LastPointerX || position.Y != client->LastPointerY ||
                            visible != client->LastPointerVisible;
    const CURSOR_POSITION cursor = CURSOR_RotatePosition(
        SHARED_Read(client->Rotation), SHARED_Read(client->DesktopWidth), SHARED_Read(client->DesktopHeight),
        client->PointerShape.Width, client->PointerShape.Height, position.X, position.Y);
    client->CursorX = cursor.X;
    client->CursorY = cursor.Y;
    client->CursorVisible = visible;
    client->LastPointerX = position.X;
    client->LastPointerY = position.Y;
    client->LastPointerVisible = visible;
    return changed;
}

// Takes over a shape. FALSE when it was refused.
BOOLEAN UpdateShape(CLIENT_CONTEXT* client, const POINTER_SHAPE* shape) TSA_REQUIRES(client->SubmitMutex);
BOOLEAN UpdateShape(CLIENT_CONTEXT* client, const POINTER_SHAPE* shape) {
    const ULONG rotation = SHARED_Read(client->Rotation);
    return CURSOR_StoreShape(&client->PointerShape, shape) &&
           CURSOR_RotateShape(&client->PointerShape, rotation, &client->RotatedShape);
}

} // namespace

void CURSOR_Update(DEVICE_CONTEXT* context, const POINTER_POSITION* position, const POINTER_SHAPE* shape) {
    CLIENT_CONTEXT* client = &context->Client;
    BOOLEAN changed = FALSE;
    {
        MUTEX_GUARD submit(client->SubmitMutex);
        if (position != nullptr) {
            changed = UpdatePosition(client, position);
        }
        if (shape != nullptr && UpdateShape(client, shape)) {
            changed = TRUE;
        }
    }
    if (changed) {
        FRAMEBUFFER_ResubmitCurrent(context);
    }
}

// A shape that is too large is refused and not cut: half a pointer in the wrong place of its image would be
// worse than the one from before.
BOOLEAN CURSOR_StoreShape(CURSOR_IMAGE* image, const POINTER_SHAPE* shape) {
    const POINTER_SHAPE copy = *shape; // once: it is the caller's memory
    ULONG byteCount = 0;
    if (!MeasureBits(copy.Type, copy.Width, copy.Height, copy.Pitch, &byteCount) ||
        !FitsEveryRotation(copy.Type, copy.Width, copy.Height) || (copy.Bits == nullptr && byteCount != 0)) {
        return FALSE;
    }
    image->Type = copy.Type;
    image->Width = copy.Width;
    image->Height = copy.Height;
    image->Pitch = copy.Pitch;
    if (byteCount != 0) {
        RtlCopyMemory(image->Bits, copy.Bits, byteCount);
    }
    return TRUE;
}

// The rows of a turned image are packed: one stride that is right for every shape and both masks, where the
// source's pitch would let the rows of a shape that is not square run into each other.
BOOLEAN CURSOR_RotateShape(const CURSOR_IMAGE* source, ULONG rotation, CURSOR_IMAGE* rotated) {
    const ULONG width = SwapsAxes(rotation) ? source->Height : source->Width;
    const ULONG height = SwapsAxes(rotation) ? source->Width : source->Height;
    const ULONGLONG pitch = IsTurned(rotation) ? PackedPitch(source->Type, width) : source->Pitch;
    ULONG sourceBytes = 0;
    ULONG rotatedBytes = 0;
    if (!MeasureImage(source, &sourceBytes) ||
        !MeasureBits(source->Type, width, height, pitch, &rotatedBytes)) {
        return FALSE;
    }
    rotated->Type = source->Type;
    rotated->Width = width;
    rotated->Height = height;
    rotated->Pitch = static_cast<ULONG>(pitch);
    if (!IsTurned(rotation)) {
        RtlCopyMemory(rotated->Bits, source->Bits, sourceBytes);
        return TRUE;
    }
    if (rotatedBytes == 0) {
        return TRUE; // No pixels, however long the other side claims to be.
    }
    RtlZeroMemory(rotated->Bits, rotatedBytes);
    if (IsMonochrome(source->Type)) {
        TurnMonochrome(source, rotation, rotated);
    } else {
        TurnColor(source, rotation, rotated);
    }
    return TRUE;
}

CURSOR_POSITION CURSOR_RotatePosition(ULONG rotation, ULONG desktopWidth, ULONG desktopHeight, ULONG width,
                                      ULONG height, ULONG x, ULONG y) {
    ULONG frameX = x;
    ULONG frameY = y;
    switch (rotation) {
    case ROTATION_QUARTER:
        frameX = y;
        frameY = desktopHeight - width - x;
        break;
    case ROTATION_HALF:
        frameX = desktopWidth - width - x;
        frameY = desktopHeight - height - y;
        break;
    case ROTATION_THREE_QUARTERS:
        frameX = desktopWidth - height - y;
        frameY = x;
        break;
    }
    return {static_cast<LONG>(frameX), static_cast<LONG>(frameY)};
}

void CURSOR_SetMaskBit(UCHAR* mask, ULONG pitch, ULONG x, ULONG y, ULONG value) {
    const UCHAR bit = static_cast<UCHAR>(0x80 >> (x % 8));
    UCHAR* byte = mask + static_cast<SIZE_T>(y) * pitch + x / 8;
    *byte = static_cast<UCHAR>(value != 0 ? *byte | bit : *byte & ~bit);
}

BOOLEAN CURSOR_GetMaskBit(const UCHAR* mask, ULONG pitch, ULONG x, ULONG y) {
    return (mask[static_cast<SIZE_T>(y) * pitch + x / 8] >> (7 - x % 8)) & 1;
}

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

// The image is blended aside first: the frame changes only once it is certain that it can be restored.
void CURSOR_Compose(FRAME_BUFFER_CONTEXT* frameBuffer, const CURSOR_IMAGE* image, LONG x, LONG y) {
    const BOOLEAN isKnownType = image->Type == POINTER_MONOCHROME || image->Type == POINTER_COLOR_ALPHA ||
                                image->Type == POINTER_COLOR_MASKED;
    ULONG imageBytes = 0;
    CURSOR_AREA area;
    if (!isKnownType || !MeasureImage(image, &imageBytes) ||
        !CURSOR_ClipToFrame(frameBuffer->Width, frameBuffer->Height, image, x, y, &area) ||
        static_cast<ULONGLONG>(area.Width) * area.Height > SAVE_AREA_PIXELS ||
        !IsInsidePixelBuffer(frameBuffer, &area)) {
        return;
    }
    const ULONG rowBytes = area.Width * PIXEL_BYTES;
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
    const ULONG rowBytes = frameBuffer->SavedWidth * PIXEL_BYTES;
    const ULONGLONG frameRowBytes = FrameRowBytes(frameBuffer);
    for (ULONG row = 0; row < frameBuffer->SavedHeight; row++) {
        RtlCopyMemory(frameBuffer->SavedAreaStart + row * frameRowBytes,
                      frameBuffer->SaveArea + row * rowBytes, rowBytes);
    }
    frameBuffer->SavedValid = FALSE;
}
