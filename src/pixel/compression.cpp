#include "pixel/compression.h"

#include "pixel/exact_encoder.h"
#include "pixel/tolerant_encoder.h"
#include "pixel/transform.h"

namespace {

// Pixels as an encoder reads them. Pixels is null when there is nothing to encode.
struct ENCODER_INPUT {
    const UCHAR* Pixels;
    ULONGLONG Size; // bytes
};

constexpr ENCODER_INPUT NO_INPUT = {nullptr, 0};

bool HoldsPixels(const FRAME_SOURCE& frame, ULONG bytesPerPixel) {
    return frame.Size >= ULONGLONG{frame.PixelCount} * bytesPerPixel;
}

ENCODER_INPUT ReadInPlace(const FRAME_SOURCE& frame, ULONG bytesPerPixel) {
    return HoldsPixels(frame, bytesPerPixel) ? ENCODER_INPUT{frame.Pixels, frame.Size} : NO_INPUT;
}

bool IsConvertible(ULONG sourceBytesPerPixel) {
    return sourceBytesPerPixel == 3 || sourceBytesPerPixel == 4;
}

// Whether the frame can be read, and converted in whole blocks to pixels of `bytesPerPixel` bytes.
bool CanStage(const FRAME_SOURCE& frame, ULONG sourceBytesPerPixel, BYTE_RANGE staging, ULONG bytesPerPixel) {
    const ULONGLONG blocks = (ULONGLONG{frame.PixelCount} + PIXELS_PER_BLOCK - 1) / PIXELS_PER_BLOCK;
    return staging.Start != nullptr && HoldsPixels(frame, sourceBytesPerPixel) &&
           blocks * PIXELS_PER_BLOCK * bytesPerPixel <= static_cast<ULONGLONG>(staging.End - staging.Start);
}

// Frames of 3- or 4-byte pixels become RGB555 in the staging buffer; other frames are 16-bit pixels already.
// The adapter reads the 15 bits of a literal as RGB555, even where the mode's Rgb555Enable and with it the
// format register say RGB565: an RGB565 pixel would lose the top bit of red.
ENCODER_INPUT Stage16(const FRAME_FORMAT& format, const CPU_FEATURES& cpu, const FRAME_SOURCE& frame,
                      BYTE_RANGE staging) {
    if (!IsConvertible(format.SourceBytesPerPixel)) {
        return ReadInPlace(frame, 2);
    }
    if (!CanStage(frame, format.SourceBytesPerPixel, staging, 2)) {
        return NO_INPUT;
    }
    const bool bgrx32 = format.SourceBytesPerPixel == 4;
    const auto convertBgrx32 = cpu.CpuHasSsse3 ? PIXEL_Bgrx32ToRgb16Blocks : PIXEL_Bgrx32ToRgb16;
    const auto convertBgr24 = cpu.CpuHasSsse3 ? PIXEL_Bgr24ToRgb16Blocks : PIXEL_Bgr24ToRgb16;
    (bgrx32 ? convertBgrx32 : convertBgr24)(staging.Start, frame.Pixels, frame.PixelCount, 1);
    return {staging.Start, ULONGLONG{frame.PixelCount} * 2};
}

// The tolerant encoder reads pixels of `unitBytes` bytes. A frame whose pixels have another size is converted
// to the mode's output format first; else it would be read with the wrong stride.
ENCODER_INPUT StageForRuns(const FRAME_FORMAT& format, const CPU_FEATURES& cpu, const FRAME_SOURCE& frame,
                           BYTE_RANGE staging, ULONG unitBytes) {
    if (format.SourceBytesPerPixel == unitBytes || !IsConvertible(format.SourceBytesPerPixel)) {
        return ReadInPlace(frame, unitBytes);
    }
    if (!CanStage(frame, format.SourceBytesPerPixel, staging, unitBytes)) {
        return NO_INPUT;
    }
    PIXEL_TransformFrame(format, cpu, staging.Start, frame.Pixels, frame.PixelCount);
    return {staging.Start, ULONGLONG{frame.PixelCount} * unitBytes};
}

ULONGLONG EncodeTolerant(const COMPRESSION_FORMAT& format, const ENCODER_INPUT& input, ULONG pixelCount,
                         ULONG unitBytes, BYTE_RANGE destination, BOOLEAN leadIn) {
    return COMPRESSION_EncodeRuns(input.Pixels, input.Size, pixelCount, unitBytes, destination.Start,
                                  destination.End, COMPRESSION_GetToleranceMask(format.CompressionLevel),
                                  leadIn);
}

ULONGLONG EncodeExact(ULONG sourceBytesPerPixel, const CPU_FEATURES& cpu, const FRAME_SOURCE& frame,
                      BYTE_RANGE destination) {
    const bool bgrx32 = sourceBytesPerPixel == 4;
    if (!HoldsPixels(frame, bgrx32 ? 4 : 3)) {
        return 0;
    }
    const auto encodeBgrx32 =
        cpu.CpuHasSsse3 ? COMPRESSION_EncodeBgrx32ExactBlocks : COMPRESSION_EncodeBgrx32Exact;
    const auto encodeBgr24 =
        cpu.CpuHasSsse3 ? COMPRESSION_EncodeBgr24ExactBlocks : COMPRESSION_EncodeBgr24Exact;
    return (bgrx32 ? encodeBgrx32 : encodeBgr24)(frame.Pixels, destination.Start, destination.End,
                                                 frame.PixelCount);
}

} // namespace

// Only the largest modes can outgrow the render buffer, with frames that hardly compress. Such a frame is not
// sent: an incomplete stream would show a broken picture, and without it the adapter shows the previous
// frame.
ULONGLONG COMPRESSION_CompressFrame(const COMPRESSION_FORMAT& format, const CPU_FEATURES& cpu,
                                    const FRAME_SOURCE& frame, BYTE_RANGE staging, BYTE_RANGE destination) {
    if (format.ExactUnitsOnly) {
        return EncodeExact(format.Frame.SourceBytesPerPixel, cpu, frame, destination);
    }
    const ULONG unitBytes = format.Frame.OutputColorMode == OUTPUT_COLOR_8_BIT ? 1 : 3;
    const ENCODER_INPUT input = StageForRuns(format.Frame, cpu, frame, staging, unitBytes);
    if (input.Pixels == nullptr) {
        return 0;
    }
    const ULONGLONG length = EncodeTolerant(format, input, frame.PixelCount, unitBytes, destination, FALSE);
    if (length != 0 && length < LEAD_IN_BYTES && format.LeadIn) {
        return EncodeTolerant(format, input, frame.PixelCount, unitBytes, destination, TRUE);
    }
    return length;
}

ULONGLONG COMPRESSION_CompressFrame16(const COMPRESSION_FORMAT& format, const CPU_FEATURES& cpu,
                                      GROUP_ENCODER_STATE* groupState, const FRAME_SOURCE& frame,
                                      BYTE_RANGE staging, BYTE_RANGE destination) {
    const bool groups = cpu.CpuHasSsse3 && cpu.CpuHasSse41;
    if (groups && format.Frame.SourceBytesPerPixel == 4) {
        return HoldsPixels(frame, 4)
                   ? COMPRESSION_EncodeBgrx32Groups(groupState, frame.Pixels, destination.Start,
                                                    destination.End, frame.PixelCount, GROUP_TARGET_SIZE)
                   : 0;
    }
    const ENCODER_INPUT input = Stage16(format.Frame, cpu, frame, staging);
    if (input.Pixels == nullptr) {
        return 0;
    }
    if (groups) {
        return COMPRESSION_EncodeRgb555Groups(groupState, input.Pixels, destination.Start, destination.End,
                                              frame.PixelCount, GROUP_TARGET_SIZE);
    }
    return EncodeTolerant(format, input, frame.PixelCount, 2, destination, format.LeadIn);
}
