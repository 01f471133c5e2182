// Compression state of one adapter.
#pragma once

#include <ntddk.h>

constexpr ULONG GROUP_MASK_COUNT = 256;
constexpr ULONG QUANT_LEVEL_COUNT = 16;

// Tables of the 16-bit encoders, at 32-byte boundaries inside the inline work areas. What the masks stand
// for: pixel/run_packer.h.
struct GROUP_TABLES {
    UCHAR (*GroupPackShuffle)[16]; // by the mask of continued repeats
    USHORT(*GroupCountShuffle)
    [8];                    // by the mask of repeats; the counts in their places, which saves the
                            // shuffle that would bring them there
    USHORT (*QuantMask)[8]; // QUANT_LEVEL_COUNT rows of eight equal lanes
    USHORT (*QuantFill)[8];
};

// What a group of eight pixels writes and leaves, by the mask of continued repeats.
struct alignas(4) PACK_STEP {
    UCHAR Bytes;
    UCHAR Open;   // repeats at its end that the next group continues
    CHAR AllOpen; // -1: all eight do, and the run before them with them; else 0
};

// Used by the frame update thread only, except LegacyCompressionFlag (set by chip initialisation before
// frames flow).
struct PIXEL_CONTEXT {
    ULONG LegacyCompressionFlag;
    USHORT QuantLevel;
    ULONG QuantSmallFrameCount;
    BOOLEAN GroupTablesReady;
    PACK_STEP GroupWordCount[GROUP_MASK_COUNT]; // by the mask of continued repeats
    UCHAR CompressionWorkArea0[4128];
    UCHAR CompressionWorkArea1[4128];
    UCHAR CompressionWorkArea2[288];
    UCHAR CompressionWorkArea3[288];
    GROUP_TABLES Tables; // aligned addresses, set when the pipeline is initialised
};
