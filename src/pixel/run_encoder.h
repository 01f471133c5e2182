// The tolerant run encoder: merges pixels that differ only in bits that the compression level allows to
// differ.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// A stream that starts with literals until this many bytes stand: what a lead-in writes for adapters that
// need one (LegacyCompressionFlag).
constexpr ULONG LEAD_IN_BYTES = 1025;

// Encodes `pixelCount` pixels of `unitBytes` bytes (1, 2 or 3) from `source` into [destination,
// destinationEnd) and returns the length of the stream, a multiple of 4, or 0 when it does not fit. All
// pixels must be readable; those at or beyond `sourceSize` bytes are never merged. The tolerance is that of
// the current compression level. `leadIn` asks for the lead-in where LegacyCompressionFlag is set.
ULONGLONG COMPRESSION_EncodeRuns(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                 ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                 const UCHAR* destinationEnd, BOOLEAN leadIn);

// The same stream pixel by pixel: the reference of the vector form that 16-bit pixels take.
ULONGLONG COMPRESSION_EncodeRunsByPixel(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                        ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                        const UCHAR* destinationEnd, BOOLEAN leadIn);
