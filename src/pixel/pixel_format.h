// Pixel formats of the client and of the adapter. Bytes in memory order; 16-bit pixels are little-endian:
//   BGR24   blue, green, red
//   BGRX32  blue, green, red, ignored
//   RGB8    red 7..6 in bits 7..6, green 7..5 in bits 5..3, blue 7..5 in bits 2..0
//   RGB565  red 7..3 in bits 15..11, green 7..2 in bits 10..5, blue 7..3 in bits 4..0
//   RGB555  red 7..3 in bits 14..10, green 7..3 in bits 9..5, blue 7..3 in bits 4..0, bit 15 clear
// Every reduction keeps the high bits of a channel.
//
// The client hands over BGRX32 or BGR24; the adapter takes any format but BGRX32.
#pragma once

#include <ntddk.h>

// The values of a mode's color depth. Any other value is treated as 24 bits.
enum OUTPUT_COLOR_MODE : ULONG {
    OUTPUT_COLOR_8_BIT = 0,  // RGB8
    OUTPUT_COLOR_16_BIT = 1, // RGB565 or RGB555
    OUTPUT_COLOR_24_BIT = 2, // BGR24
};

// What the mode in force says about pixels.
struct FRAME_FORMAT {
    ULONG SourceBytesPerPixel; // 3: BGR24, 4: BGRX32
    ULONG OutputColorMode;     // OUTPUT_COLOR_MODE
    ULONG Rgb555Enable;        // with 16-bit output: 1 RGB555, else RGB565
};

// Bytes per pixel of uncompressed output: 1, 2 or 3.
constexpr ULONG PIXEL_OutputBytes(ULONG outputColorMode) {
    switch (outputColorMode) {
    case OUTPUT_COLOR_8_BIT:
        return 1;
    case OUTPUT_COLOR_16_BIT:
        return 2;
    default:
        return 3;
    }
}
