// The display mode in force.
#pragma once

#include "pixel/pixel_format.h"

#include <ntddk.h>

struct MODE_PARAMETERS {
    ULONG Width; // pixels
    ULONG Height;
    ULONG Refresh; // Hz
    ULONG HorizontalTotal;
    ULONG HorizontalSync;
    ULONG HorizontalBackPorch;
    ULONG VerticalTotal;
    ULONG VerticalSync;
    ULONG VerticalBackPorch;
    ULONG TransferScheme; // 0: bulk
    ULONG CompressionEnabled;
    ULONG CompressionLevel; // that the stream begins with
    ULONG CompressionLevelMin;
    ULONG CompressionLevelMax;
    ULONG CompressedLowThreshold; // bytes
    ULONG CompressedHighThreshold;
    ULONG HorizontalSizeImage; // the four timing register images
    ULONG HorizontalSyncImage;
    ULONG VerticalSizeImage;
    ULONG VerticalSyncImage;
    ULONG PllWord;
    ULONG SourceBytesPerPixel;
    ULONG OutputColorMode; // OUTPUT_COLOR_MODE
    ULONG ZeroLengthFlag;  // 1: every frame is followed by a zero-length transfer
    ULONG Rgb555Enable;    // with 16-bit output: 1 RGB555, else RGB565
    ULONG BandwidthFlag;
    ULONG AutoUpdateEnabled;
};
