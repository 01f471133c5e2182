// The run stream, which the adapter expands, and the bounded place it is written to.
//
// A run stream is a sequence of little-endian units of U bytes, U being 1, 2 or 3. The top bit of a unit
// tells its kind: set, a literal pixel in the other bits; clear, a repeat count (at least 1): the pixel
// decoded last occurs that many times more. Every stream starts with a literal.
//
//   U   literal                                                  largest count
//   1   bits 7..1 of the RGB8 pixel in bits 6..0                           127
//   2   RGB555 pixel in bits 14..0                                      32,767
//   3   blue, green, red 7..1 in bits 6..0 of byte 2                 8,388,607
#pragma once

#include <ntddk.h>

// The largest repeat count of a unit of `unitBytes` bytes.
constexpr ULONG MaxRepeatCount(ULONG unitBytes) {
    return (1u << (8 * unitBytes - 1)) - 1;
}

// Where the next unit is written. A unit that would pass the end is not written; Overflow then stays set, and
// the stream must not be sent.
struct UNIT_WRITER {
    UCHAR* Cursor;
    const UCHAR* End;
    BOOLEAN Overflow;
};

// Writes the low `Size` bytes of `value`, the lowest first.
template <ULONG Size>
inline void STREAM_PutBytes(UNIT_WRITER* writer, ULONG value) {
    if (static_cast<SIZE_T>(writer->End - writer->Cursor) < Size) {
        writer->Overflow = TRUE;
        return;
    }
    writer->Cursor[0] = static_cast<UCHAR>(value);
    if constexpr (Size > 1) {
        writer->Cursor[1] = static_cast<UCHAR>(value >> 8);
    }
    if constexpr (Size > 2) {
        writer->Cursor[2] = static_cast<UCHAR>(value >> 16);
    }
    writer->Cursor += Size;
}

// The literal unit of a pixel of `UnitBytes` bytes. The flag takes the place of the lowest bit of red, or of
// blue with one byte, and of bit 15 of a 16-bit pixel.
template <ULONG UnitBytes>
constexpr ULONG LiteralUnit(ULONG pixel) {
    if constexpr (UnitBytes == 1) {
        return pixel >> 1 | 0x80;
    } else if constexpr (UnitBytes == 2) {
        return pixel | 0x8000;
    } else {
        return (pixel & 0xFFFF) | (pixel >> 1 & 0x7F0000) | 0x800000;
    }
}

// Writes the units of `count` repeats of the pixel decoded last, which is `pixel`, with a literal between two
// counts.
template <ULONG UnitBytes>
inline void COMPRESSION_EmitRepeat(UNIT_WRITER* writer, ULONG pixel, ULONG count) {
    constexpr ULONG maximum = MaxRepeatCount(UnitBytes);
    while (count > maximum) {
        STREAM_PutBytes<UnitBytes>(writer, maximum);
        STREAM_PutBytes<UnitBytes>(writer, LiteralUnit<UnitBytes>(pixel));
        count -= maximum + 1;
    }
    if (count > 0) {
        STREAM_PutBytes<UnitBytes>(writer, count);
    }
}
