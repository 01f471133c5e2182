// The exact 24-bit run encoder: 3-byte units from BGR24 or BGRX32 pixels. What differs in anything but the
// lowest bit of red, which the unit's flag takes, is not merged.
#pragma once

#include <ntddk.h>

// Each encodes `pixelCount` pixels from `source` into [destination, destinationEnd) and returns the length of
// the stream, rounded up to a multiple of 4 (the bytes of the rounding are not written), or 0 when it does
// not fit. No alignment needed.
ULONGLONG COMPRESSION_EncodeBgr24Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                       ULONG pixelCount);
ULONGLONG COMPRESSION_EncodeBgrx32Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                        ULONG pixelCount);

// The same streams in vectors; need SSSE3.
ULONGLONG COMPRESSION_EncodeBgr24ExactBlocks(const UCHAR* source, UCHAR* destination,
                                             const UCHAR* destinationEnd, ULONG pixelCount);
ULONGLONG COMPRESSION_EncodeBgrx32ExactBlocks(const UCHAR* source, UCHAR* destination,
                                              const UCHAR* destinationEnd, ULONG pixelCount);
