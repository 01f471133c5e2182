// The tolerant run encoder: merges pixels that differ only in bits that the compression level allows to
// differ. It serves pixels of 1, 2 and 3 bytes, on every processor.
#pragma once

#include <ntddk.h>

// With a lead-in the stream starts with literals only, until it has this many bytes: adapters of revision 1
// need it.
constexpr ULONG LEAD_IN_BYTES = 1025;

// The bits in which a pixel may differ from the literal it repeats, at a compression level of 0 to 12. None
// at any other level.
ULONG COMPRESSION_GetToleranceMask(ULONG compressionLevel);

// Encodes `pixelCount` pixels of `unitBytes` bytes (1, 2 or 3) from `source` into [destination,
// destinationEnd) as a run stream with units of that size. Returns the length of the stream, a multiple of 4,
// or 0 when it does not fit. All pixels must be readable; those at or beyond `sourceSize` bytes are never
// merged. No alignment needed. No state, no locks; any IRQL.
ULONGLONG COMPRESSION_EncodeRuns(const UCHAR* source, ULONGLONG sourceSize, ULONG pixelCount, ULONG unitBytes,
                                 UCHAR* destination, const UCHAR* destinationEnd, ULONG toleranceMask,
                                 BOOLEAN leadIn);
