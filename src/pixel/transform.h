// Conversion of whole frames between the client's pixel formats and those of the adapter.
//
// Formats, bytes in memory order; 16-bit pixels are little-endian:
//   BGR24   blue, green, red
//   BGRX32  blue, green, red, ignored
//   RGB8    red 7..6 in bits 7..6, green 7..5 in bits 5..3, blue 7..5 in bits 2..0
//   RGB565  red 7..3 in bits 15..11, green 7..2 in bits 10..5, blue 7..3 in bits 4..0
//   RGB555  red 7..3 in bits 14..10, green 7..3 in bits 9..5, blue 7..3 in bits 4..0, bit 15 clear
// Every reduction keeps the high bits of a channel.
//
// Routines that end in Blocks need SSSE3 and work in whole blocks of 16 pixels: for N pixels they read and
// write ceil(N / 16) x 16 pixels, and the destination lies on a 16-byte boundary. The pixel count of every
// mode is a multiple of 16. The other routines touch exactly N pixels and need no alignment. Source and
// destination do not overlap. No state, no locks; any IRQL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;
struct MODE_PARAMETERS;

constexpr ULONG PIXELS_PER_BLOCK = 16;

// Bytes per pixel of the mode's uncompressed output: 1, 2 or 3.
ULONG PIXEL_OutputBytes(const MODE_PARAMETERS& mode);

// Converts `pixelCount` pixels of the current mode's source format (3 or 4 bytes per pixel) to its output
// format. Any other source format writes nothing.
void PIXEL_TransformFrame(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source, ULONG pixelCount);

// The choice among the block routines: output 1, 2 or 3 bytes per pixel, source 3 or 4; any other pair writes
// nothing.
void PIXEL_TransformFrameSimd(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source,
                              ULONG pixelCount, ULONG outputBytesPerPixel, ULONG sourceBytesPerPixel);

// `rgb555` 1 gives RGB555, any other value RGB565.
void PIXEL_Bgr24ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgrx32ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgr24ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToBgr24(UCHAR* destination, const UCHAR* source, ULONG pixelCount);

void PIXEL_Bgr24ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgr24ToRgb16Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgr24ToRgb555Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Copy24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb16Blocks(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source,
                               ULONG pixelCount); // follows the mode's Rgb555Enable
void PIXEL_Bgrx32ToRgb555Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb565Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToBgr24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
