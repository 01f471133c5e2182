// The quantization level of the group encoder (pixel/group_encoder.h) follows the size of its streams.
//
// A stream longer than its target is encoded again at once, at a coarser level; a long series of short
// streams makes the level finer by one.
#pragma once

#include <ntddk.h>

// The stream length in bytes that the level control aims at.
constexpr ULONG GROUP_TARGET_SIZE = 500000;
constexpr USHORT QUANT_LEVEL_COARSEST = 11;

// One per adapter, zero at device add and never reset. Used by the frame update thread only; reports read
// QuantLevel.
struct GROUP_ENCODER_STATE {
    USHORT QuantLevel;          // 0, the finest, to QUANT_LEVEL_COARSEST
    ULONG QuantSmallFrameCount; // frames in a row whose stream was shorter than 80 % of the target
};

// Encodes `pixelCount` RGB555 pixels (bit 15 ignored) into [destination, destinationEnd) and returns the
// length of the stream in bytes. 0: even the coarsest level does not fit the destination. A stream at the
// coarsest level may exceed `targetSize`. Needs SSSE3 and SSE4.1, but no alignment. No locks; any IRQL.
ULONGLONG COMPRESSION_EncodeRgb555Groups(GROUP_ENCODER_STATE* state, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize);

// The same stream from the client's BGRX32 pixels.
ULONGLONG COMPRESSION_EncodeBgrx32Groups(GROUP_ENCODER_STATE* state, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize);
