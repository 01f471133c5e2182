// The exact 24-bit run encoder: 3-byte units (pixel/run_stream.h) from BGR24 or BGRX32 pixels. Only pixels
// that are equal, or differ in the lowest bit of red alone, are merged: the unit's flag replaces that bit.
#pragma once

#include <ntddk.h>

// Each encodes `pixelCount` pixels from `source` into [destination, destinationEnd) and returns the length of
// the stream in bytes, or 0 when it does not fit or there is no pixel. The length is rounded up to a multiple
// of 4; the contents of the added bytes are undefined. No alignment needed. No state, no locks; any IRQL.
ULONGLONG COMPRESSION_EncodeBgr24Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                       ULONG pixelCount);
ULONGLONG COMPRESSION_EncodeBgrx32Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                        ULONG pixelCount);

// The same streams in vectors; need SSSE3.
ULONGLONG COMPRESSION_EncodeBgr24ExactBlocks(const UCHAR* source, UCHAR* destination,
                                             const UCHAR* destinationEnd, ULONG pixelCount);
ULONGLONG COMPRESSION_EncodeBgrx32ExactBlocks(const UCHAR* source, UCHAR* destination,
                                              const UCHAR* destinationEnd, ULONG pixelCount);
