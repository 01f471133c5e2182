#include "surface/cursor_shape.h"

#include "surface/cursor_pixels.h"

namespace {

constexpr ULONGLONG PackedPitch(ULONG type, ULONG width) {
    return CURSOR_IsMonochrome(type) ? (static_cast<ULONGLONG>(width) + 7) / 8
                                     : static_cast<ULONGLONG>(width) * CURSOR_PIXEL_BYTES;
}

// The bytes that a shape takes. FALSE when it does not fit into an image or its rows overlap. Width and
// height of what passes are small enough for 32-bit arithmetic on its bytes.
BOOLEAN MeasureBits(ULONG type, ULONG width, ULONG height, ULONGLONG pitch, ULONG* byteCount) {
    if (pitch < PackedPitch(type, width) || pitch > CURSOR_BITS_SIZE) {
        return FALSE;
    }
    const ULONGLONG bytes = pitch * height * (CURSOR_IsMonochrome(type) ? 2 : 1);
    if (bytes > CURSOR_BITS_SIZE) {
        return FALSE;
    }
    *byteCount = static_cast<ULONG>(bytes);
    return TRUE;
}

// Whether the image also fits after a quarter turn: the rotation may change later.
BOOLEAN FitsEveryRotation(ULONG type, ULONG width, ULONG height) {
    ULONG byteCount = 0;
    return MeasureBits(type, width, height, PackedPitch(type, width), &byteCount) &&
           MeasureBits(type, height, width, PackedPitch(type, height), &byteCount);
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
        const UCHAR* from = source->Bits + row * source->Pitch + column * CURSOR_PIXEL_BYTES;
        CURSOR_StorePixel(rotated->Bits + place.Row * rotated->Pitch + place.Column * CURSOR_PIXEL_BYTES,
                          CURSOR_LoadPixel(from));
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

} // namespace

BOOLEAN CURSOR_MeasureImage(const CURSOR_IMAGE* image, ULONG* byteCount) {
    return MeasureBits(image->Type, image->Width, image->Height, image->Pitch, byteCount);
}

// A shape that is too large is refused and not cut: half a pointer in the wrong place of its image would be
// worse than the previous pointer.
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
    if (!CURSOR_MeasureImage(source, &sourceBytes) ||
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
        return TRUE; // One side is 0, the other may be any length.
    }
    RtlZeroMemory(rotated->Bits, rotatedBytes);
    if (CURSOR_IsMonochrome(source->Type)) {
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
