// Compressed frames: what goes out when the mode has compression enabled.
//
// A run stream is a sequence of little-endian units of U bytes, U being 1, 2 or 3. The top bit of a unit
// tells its kind: set, a literal pixel in the other bits; clear, a repeat count (at least 1): the pixel
// decoded last occurs that many times more. Every stream starts with a literal.
//
//   U   literal                                                  largest count
//   1   bits 7..1 of the RGB8 pixel in bits 6..0                           127
//   2   RGB555 pixel in bits 14..0                                      32,767
//   3   blue, green, red 7..1 in bits 6..0 of byte 2                 8,388,607
//
// Frames are encoded on the frame update thread, one at a time. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Encodes a frame of `pixelCount` pixels, the client's `sourceSize` bytes at `source`, into the render buffer
// whose aligned address is `destination`, and returns the length of the stream in bytes. 0 means that nothing
// is to be sent: the output is off, the frame is shorter than its pixels, or its stream does not fit the
// render buffer; the next frame starts afresh. `reserved` is 0.
//
// COMPRESSION_CompressFrame16 serves OutputColorMode 1, COMPRESSION_CompressFrame the others.
ULONGLONG COMPRESSION_CompressFrame(DEVICE_CONTEXT* context, ULONG reserved, ULONGLONG sourceSize,
                                    const UCHAR* source, UCHAR* destination, ULONG pixelCount);
ULONGLONG COMPRESSION_CompressFrame16(DEVICE_CONTEXT* context, ULONG reserved, ULONGLONG sourceSize,
                                      const UCHAR* source, UCHAR* destination, ULONG pixelCount);

// Moves the compression level by one within the mode's bounds, under CompressionLevelLock.
void COMPRESSION_RaiseLevel(DEVICE_CONTEXT* context);
void COMPRESSION_LowerLevel(DEVICE_CONTEXT* context);

// The bits in which a pixel may differ from the literal it repeats, at the current compression level.
ULONG COMPRESSION_GetToleranceMask(DEVICE_CONTEXT* context);
