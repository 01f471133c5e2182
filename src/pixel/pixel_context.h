// Compression state of one adapter.
#pragma once

#include <ntddk.h>

constexpr ULONG GROUP_MASK_COUNT = 256;
constexpr ULONG QUANT_LEVEL_COUNT = 16;

// Tables of the group encoder, at 32-byte boundaries inside the inline work areas; by the mask of the pixels
// in a group of eight that repeat their predecessor, or by level.
struct GROUP_TABLES {
    UCHAR (*PackShuffle)[16];  // GroupPackShuffle: GROUP_MASK_COUNT rows
    UCHAR (*CountShuffle)[16]; // GroupCountShuffle
    USHORT (*QuantMask)[8];    // QUANT_LEVEL_COUNT rows of eight equal lanes
    USHORT (*QuantFill)[8];
};

// The sizes that belong to a mask.
struct GROUP_STEP {
    UCHAR WordCount; // words the group writes, the leading run aside
    UCHAR Leading;   // repeats at its start, which continue the run before
    UCHAR Trailing;  // repeats at its end, which the next group may continue
    UCHAR Flat;      // 1: all eight repeat, nothing is written
};

// Used by the frame update thread only, except LegacyCompressionFlag (set by chip initialisation before
// frames flow).
struct PIXEL_CONTEXT {
    ULONG LegacyCompressionFlag;
    USHORT QuantLevel;
    ULONG QuantSmallFrameCount;
    BOOLEAN GroupTablesReady;
    GROUP_STEP GroupSteps[GROUP_MASK_COUNT];
    UCHAR CompressionWorkArea0[4128];
    UCHAR CompressionWorkArea1[4128];
    UCHAR CompressionWorkArea2[288];
    UCHAR CompressionWorkArea3[288];
    GROUP_TABLES Tables; // aligned addresses, set when the pipeline is initialised
};
