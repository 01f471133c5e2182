// The quantizing 16-bit encoder: replaces low bits of each channel by fixed ones, so that near-equal pixels
// become equal, and writes the runs of the result as a 2-byte run stream (pixel/run_stream.h). Its counts are
// 2 to 32,767, two counts never follow each other, and the stream ends with a literal.
//
// One pass at a given level. Which level a frame gets: pixel/group_level.h.
#pragma once

#include <ntddk.h>

// Levels 0, the finest, to 15. The level control uses 0 to 11. At level 15 all pixels become equal.
constexpr ULONG QUANT_LEVEL_COUNT = 16;

// Each encodes `pixelCount` pixels from `source` into [destination, destinationEnd) and returns the length of
// the stream in bytes, or 0 when it does not fit or there is no pixel. `level` is below QUANT_LEVEL_COUNT. No
// alignment needed. No state, no locks; any IRQL.
//
// RGB555 pixels (bit 15 ignored), pixel by pixel: the reference of the vector forms.
ULONGLONG COMPRESSION_EncodeGroupsByPixel(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level);

// The same stream in vectors; needs SSSE3 and SSE4.1.
ULONGLONG COMPRESSION_EncodeGroupsByTable(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level);

// The same stream in vectors from BGRX32 pixels. Each pixel is reduced to RGB555 only where it is written,
// which costs less than to write the reduced frame and read it back.
ULONGLONG COMPRESSION_EncodeBgrx32GroupsByTable(const UCHAR* source, UCHAR* destination,
                                                const UCHAR* destinationEnd, ULONG pixelCount, ULONG level);
