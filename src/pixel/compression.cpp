#include "pixel/compression.h"

#include "device/device_context.h"
#include "pixel/exact_encoder.h"
#include "pixel/group_encoder.h"
#include "pixel/run_encoder.h"
#include "pixel/transform.h"

namespace {

constexpr ULONG COMPRESSION_LEVEL_COUNT = 13;
constexpr ULONG NOTHING_TOLERATED = 0xFF000000;

// By compression level. Bits above the pixel's own are set: they are zero in every pixel.
constexpr ULONG TOLERANCE_MASKS[COMPRESSION_LEVEL_COUNT] = {
    NOTHING_TOLERATED, 0xFF010101, 0xFF030303, 0xFF070707, NOTHING_TOLERATED, NOTHING_TOLERATED, 0xFF0F0F0F,
    NOTHING_TOLERATED, 0xFF1F1F1F, 0xFF1F3F1F, 0xFF3F3F3F, 0xFF7F3F7F,        0xFF7F7F7F,
};

// A frame on its way to an encoder. Source is null when there is nothing to encode.
struct ENCODER_INPUT {
    const UCHAR* Source;
    ULONGLONG Size;
};

constexpr ENCODER_INPUT NO_INPUT = {nullptr, 0};

// The client may hand over fewer bytes than its dimensions need; pixels it never wrote are not read.
bool HoldsFrame(ULONGLONG sourceSize, ULONG pixelCount, ULONG bytesPerPixel) {
    return sourceSize >= ULONGLONG{pixelCount} * bytesPerPixel;
}

// The staging buffer, when `pixelCount` pixels of `bytesPerPixel` bytes, in whole blocks, fit into it. It
// exists while the mode has compression enabled.
UCHAR* FindStagingRoom(const DEVICE_CONTEXT* context, ULONG pixelCount, ULONG bytesPerPixel) {
    const ULONGLONG blocks = (ULONGLONG{pixelCount} + PIXELS_PER_BLOCK - 1) / PIXELS_PER_BLOCK;
    const bool fits = blocks * PIXELS_PER_BLOCK * bytesPerPixel <= RENDER_BUFFER_CAPACITY;
    return fits ? context->Render.CompressionStagingAligned : nullptr;
}

// Frames of the client's 3- or 4-byte pixels become RGB555 in the staging buffer; other frames are 16-bit
// pixels already. A literal carries 15 bits and the adapter reads them as RGB555, so the layout is that
// whatever Rgb555Enable says, and with it the format register: RGB565 would lose the top bit of red.
ENCODER_INPUT Stage16(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize, ULONG pixelCount) {
    constexpr ULONG rgb555 = 1;
    const ULONG sourceBytes = context->Display.Mode.SourceBytesPerPixel;
    if (sourceBytes != 3 && sourceBytes != 4) {
        return HoldsFrame(sourceSize, pixelCount, 2) ? ENCODER_INPUT{source, sourceSize} : NO_INPUT;
    }
    UCHAR* staging = FindStagingRoom(context, pixelCount, 2);
    if (staging == nullptr || !HoldsFrame(sourceSize, pixelCount, sourceBytes)) {
        return NO_INPUT;
    }
    if (sourceBytes == 4) {
        if (context->Cpu.CpuHasSsse3) {
            PIXEL_Bgrx32ToRgb555Blocks(staging, source, pixelCount);
        } else {
            PIXEL_Bgrx32ToRgb16(staging, source, pixelCount, rgb555);
        }
    } else if (context->Cpu.CpuHasSsse3) {
        PIXEL_Bgr24ToRgb555Blocks(staging, source, pixelCount);
    } else {
        PIXEL_Bgr24ToRgb16(staging, source, pixelCount, rgb555);
    }
    return {staging, sourceSize};
}

// The tolerant encoder reads pixels of `unitBytes` bytes. A frame whose pixels have another size is converted
// to the mode's output format first; read with the wrong stride it would show garbage.
ENCODER_INPUT StageForRuns(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                           ULONG pixelCount, ULONG unitBytes) {
    const ULONG sourceBytes = context->Display.Mode.SourceBytesPerPixel;
    if (sourceBytes == unitBytes || (sourceBytes != 3 && sourceBytes != 4)) {
        return HoldsFrame(sourceSize, pixelCount, unitBytes) ? ENCODER_INPUT{source, sourceSize} : NO_INPUT;
    }
    UCHAR* staging = FindStagingRoom(context, pixelCount, unitBytes);
    if (staging == nullptr || !HoldsFrame(sourceSize, pixelCount, sourceBytes)) {
        return NO_INPUT;
    }
    PIXEL_TransformFrame(context, staging, source, pixelCount);
    return {staging, ULONGLONG{pixelCount} * unitBytes};
}

ULONGLONG EncodeExact(const DEVICE_CONTEXT* context, ULONGLONG sourceSize, const UCHAR* source,
                      UCHAR* destination, ULONG pixelCount) {
    const UCHAR* destinationEnd = destination + RENDER_BUFFER_CAPACITY;
    if (context->Display.Mode.SourceBytesPerPixel == 4) {
        if (!HoldsFrame(sourceSize, pixelCount, 4)) {
            return 0;
        }
        return (context->Cpu.CpuHasSsse3
                    ? COMPRESSION_EncodeBgrx32ExactBlocks
                    : COMPRESSION_EncodeBgrx32Exact)(source, destination, destinationEnd, pixelCount);
    }
    if (!HoldsFrame(sourceSize, pixelCount, 3)) {
        return 0;
    }
    return (context->Cpu.CpuHasSsse3 ? COMPRESSION_EncodeBgr24ExactBlocks : COMPRESSION_EncodeBgr24Exact)(
        source, destination, destinationEnd, pixelCount);
}

BOOLEAN IsOutputActive(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Display.DisplayStateMutex);
    return context->Display.OutputActive;
}

} // namespace

// Only the largest modes can outgrow the render buffer, with frames that hardly compress. Such a frame is not
// sent: its beginning alone would be a broken picture, and the adapter keeps showing the frame before.
ULONGLONG COMPRESSION_CompressFrame(DEVICE_CONTEXT* context, ULONG reserved, ULONGLONG sourceSize,
                                    const UCHAR* source, UCHAR* destination, ULONG pixelCount) {
    UNREFERENCED_PARAMETER(reserved);
    // The run expander of revision 2 knows 3-byte units only, also in an 8-bit mode.
    if (context->Usb.ChipRevision == 2) {
        return EncodeExact(context, sourceSize, source, destination, pixelCount);
    }
    const ULONG unitBytes = context->Display.Mode.OutputColorMode == OUTPUT_COLOR_8_BIT ? 1 : 3;
    const ENCODER_INPUT input = StageForRuns(context, source, sourceSize, pixelCount, unitBytes);
    if (input.Source == nullptr) {
        return 0;
    }
    const UCHAR* destinationEnd = destination + RENDER_BUFFER_CAPACITY;
    const ULONGLONG length = COMPRESSION_EncodeRuns(context, input.Source, input.Size, pixelCount, unitBytes,
                                                    destination, destinationEnd, FALSE);
    if (length != 0 && length < LEAD_IN_BYTES && context->Pixel.LegacyCompressionFlag) {
        return COMPRESSION_EncodeRuns(context, input.Source, input.Size, pixelCount, unitBytes, destination,
                                      destinationEnd, TRUE);
    }
    return length;
}

ULONGLONG COMPRESSION_CompressFrame16(DEVICE_CONTEXT* context, ULONG reserved, ULONGLONG sourceSize,
                                      const UCHAR* source, UCHAR* destination, ULONG pixelCount) {
    UNREFERENCED_PARAMETER(reserved);
    if (!IsOutputActive(context)) {
        return 0;
    }
    const UCHAR* destinationEnd = destination + RENDER_BUFFER_CAPACITY;
    const bool groups = context->Cpu.CpuHasSsse3 && context->Cpu.CpuHasSse41;
    if (groups && context->Display.Mode.SourceBytesPerPixel == 4) {
        if (!HoldsFrame(sourceSize, pixelCount, 4)) {
            return 0;
        }
        return COMPRESSION_EncodeBgrx32Groups(context, source, destination, destinationEnd, pixelCount,
                                              GROUP_TARGET_SIZE);
    }
    const ENCODER_INPUT input = Stage16(context, source, sourceSize, pixelCount);
    if (input.Source == nullptr) {
        return 0;
    }
    if (groups) {
        return COMPRESSION_EncodeRgb555Groups(context, input.Source, destination, destinationEnd, pixelCount,
                                              GROUP_TARGET_SIZE);
    }
    return COMPRESSION_EncodeRuns(context, input.Source, input.Size, pixelCount, 2, destination,
                                  destinationEnd, TRUE);
}

void COMPRESSION_RaiseLevel(DEVICE_CONTEXT* context) {
    MODE_PARAMETERS& mode = context->Display.Mode;
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    if (mode.CompressionLevel != mode.CompressionLevelMax) {
        mode.CompressionLevel++;
    }
}

void COMPRESSION_LowerLevel(DEVICE_CONTEXT* context) {
    MODE_PARAMETERS& mode = context->Display.Mode;
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    if (mode.CompressionLevelMin < mode.CompressionLevel) {
        mode.CompressionLevel--;
    }
}

ULONG COMPRESSION_GetToleranceMask(DEVICE_CONTEXT* context) {
    const ULONG level = context->Display.Mode.CompressionLevel;
    return level < COMPRESSION_LEVEL_COUNT ? TOLERANCE_MASKS[level] : NOTHING_TOLERATED;
}
