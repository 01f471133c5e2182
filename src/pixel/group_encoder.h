// The quantising 16-bit encoder: clears low bits of each channel so that near-equal pixels become equal, and
// more of them as long as the stream exceeds its target. Its 2-byte run stream has counts of 2 to 32,767,
// never two in a row, and ends with a literal.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// The stream the level control aims at.
constexpr ULONG GROUP_TARGET_SIZE = 500000;
constexpr USHORT QUANT_LEVEL_COARSEST = 11;

// Encodes `pixelCount` RGB555 pixels (bit 15 ignored) into [destination, destinationEnd) and returns the
// length of the stream in bytes, or 0 when it does not fit. A stream longer than `targetSize` is encoded
// again at a coarser level at once; a long series of short ones makes the level finer. Uses SSSE3 and SSE4.1.
ULONGLONG COMPRESSION_EncodeRgb555Groups(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize);

// The same stream straight from the client's BGRX32 pixels: each is reduced to RGB555 where it is compared,
// and again where it is written, which costs less than to write the reduced frame and read it back.
ULONGLONG COMPRESSION_EncodeBgrx32Groups(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize);

// One pass at a given level, without level control. The first is the reference pixel by pixel, the others
// need the tables, SSSE3 and SSE4.1.
ULONGLONG COMPRESSION_EncodeGroupsByPixel(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level);
ULONGLONG COMPRESSION_EncodeGroupsByTable(const DEVICE_CONTEXT* context, const UCHAR* source,
                                          UCHAR* destination, const UCHAR* destinationEnd, ULONG pixelCount,
                                          ULONG level);

ULONGLONG COMPRESSION_EncodeBgrx32GroupsByTable(const DEVICE_CONTEXT* context, const UCHAR* source,
                                                UCHAR* destination, const UCHAR* destinationEnd,
                                                ULONG pixelCount, ULONG level);

// Fills the tables and sets GroupTablesReady.
void COMPRESSION_BuildGroupTables(DEVICE_CONTEXT* context);
