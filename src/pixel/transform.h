// Conversion of whole frames between the client's pixel formats and those of the adapter
// (pixel/pixel_format.h).
//
// Routines that end in Blocks need SSSE3 (except PIXEL_Copy24Blocks) and work in whole blocks of 16 pixels:
// for N pixels they read and write ceil(N / 16) x 16 pixels, and the destination starts on a 16-byte
// boundary. The pixel count of every mode is a multiple of 16. The other routines touch exactly N pixels and
// need no alignment. Source and destination do not overlap. No state, no locks; any IRQL.
#pragma once

#include "pixel/cpu_features.h"
#include "pixel/pixel_format.h"

constexpr ULONG PIXELS_PER_BLOCK = 16;

// Converts `pixelCount` pixels from the source format to the output format, by block routines where the
// processor has SSSE3. For a frame that the USB controller reads next. A source of other than 3 or 4 bytes
// per pixel writes nothing.
void PIXEL_TransformFrame(const FRAME_FORMAT& format, const CPU_FEATURES& cpu, UCHAR* destination,
                          const UCHAR* source, ULONG pixelCount);

// The choice among the block routines. A source of other than 3 or 4 bytes per pixel writes nothing.
void PIXEL_TransformFrameSimd(const FRAME_FORMAT& format, UCHAR* destination, const UCHAR* source,
                              ULONG pixelCount);

// The pixel-by-pixel routines. `rgb555` 1 gives RGB555, any other value RGB565, here and below.
void PIXEL_Bgr24ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgrx32ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgr24ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToBgr24(UCHAR* destination, const UCHAR* source, ULONG pixelCount);

// The block routines. Streamed: with non-temporal stores, as PIXEL_Bgrx32ToBgr24Blocks has them.
void PIXEL_Bgr24ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgr24ToRgb16Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Copy24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
void PIXEL_Bgrx32ToRgb16Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgrx32ToRgb16Streamed(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555);
void PIXEL_Bgrx32ToBgr24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
