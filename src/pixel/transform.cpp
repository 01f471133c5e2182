#include "pixel/transform.h"

namespace {

USHORT PackRgb565(UCHAR blue, UCHAR green, UCHAR red) {
    return static_cast<USHORT>((red >> 3) << 11 | (green >> 2) << 5 | blue >> 3);
}

USHORT PackRgb555(UCHAR blue, UCHAR green, UCHAR red) {
    return static_cast<USHORT>((red >> 3) << 10 | (green >> 3) << 5 | blue >> 3);
}

template <ULONG SourceBytes>
void ConvertToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    for (ULONG pixel = 0; pixel < pixelCount; pixel++) {
        const USHORT packed = rgb555 == 1 ? PackRgb555(source[0], source[1], source[2])
                                          : PackRgb565(source[0], source[1], source[2]);
        destination[0] = static_cast<UCHAR>(packed);
        destination[1] = static_cast<UCHAR>(packed >> 8);
        destination += 2;
        source += SourceBytes;
    }
}

template <ULONG SourceBytes>
void ConvertToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    for (ULONG pixel = 0; pixel < pixelCount; pixel++) {
        *destination++ = static_cast<UCHAR>((source[2] >> 6) << 6 | (source[1] >> 5) << 3 | source[0] >> 5);
        source += SourceBytes;
    }
}

// The choice among the pixel-by-pixel routines.
void TransformFramePerPixel(const FRAME_FORMAT& format, UCHAR* destination, const UCHAR* source,
                            ULONG pixelCount) {
    const ULONG outputBytes = PIXEL_OutputBytes(format.OutputColorMode);
    if (format.SourceBytesPerPixel == 4) {
        if (outputBytes == 3) {
            PIXEL_Bgrx32ToBgr24(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgrx32ToRgb16(destination, source, pixelCount, format.Rgb555Enable);
        } else {
            PIXEL_Bgrx32ToRgb8(destination, source, pixelCount);
        }
    } else if (format.SourceBytesPerPixel == 3) {
        if (outputBytes == 3) {
            PIXEL_Copy24Blocks(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgr24ToRgb16(destination, source, pixelCount, format.Rgb555Enable);
        } else {
            PIXEL_Bgr24ToRgb8(destination, source, pixelCount);
        }
    }
}

} // namespace

void PIXEL_TransformFrame(const FRAME_FORMAT& format, const CPU_FEATURES& cpu, UCHAR* destination,
                          const UCHAR* source, ULONG pixelCount) {
    if (cpu.CpuHasSsse3) {
        PIXEL_TransformFrameSimd(format, destination, source, pixelCount);
    } else {
        TransformFramePerPixel(format, destination, source, pixelCount);
    }
}

void PIXEL_TransformFrameSimd(const FRAME_FORMAT& format, UCHAR* destination, const UCHAR* source,
                              ULONG pixelCount) {
    const ULONG outputBytes = PIXEL_OutputBytes(format.OutputColorMode);
    if (format.SourceBytesPerPixel == 4) {
        if (outputBytes == 3) {
            PIXEL_Bgrx32ToBgr24Blocks(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgrx32ToRgb16Streamed(destination, source, pixelCount, format.Rgb555Enable);
        } else {
            PIXEL_Bgrx32ToRgb8Blocks(destination, source, pixelCount);
        }
    } else if (format.SourceBytesPerPixel == 3) {
        if (outputBytes == 3) {
            PIXEL_Copy24Blocks(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgr24ToRgb16Blocks(destination, source, pixelCount, format.Rgb555Enable);
        } else {
            PIXEL_Bgr24ToRgb8Blocks(destination, source, pixelCount);
        }
    }
}

void PIXEL_Bgr24ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    ConvertToRgb16<3>(destination, source, pixelCount, rgb555);
}

void PIXEL_Bgrx32ToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    ConvertToRgb16<4>(destination, source, pixelCount, rgb555);
}

void PIXEL_Bgr24ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    ConvertToRgb8<3>(destination, source, pixelCount);
}

void PIXEL_Bgrx32ToRgb8(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    ConvertToRgb8<4>(destination, source, pixelCount);
}

void PIXEL_Bgrx32ToBgr24(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    for (ULONG pixel = 0; pixel < pixelCount; pixel++) {
        destination[0] = source[0];
        destination[1] = source[1];
        destination[2] = source[2];
        destination += 3;
        source += 4;
    }
}

void PIXEL_Copy24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    const SIZE_T blocks = (static_cast<SIZE_T>(pixelCount) + PIXELS_PER_BLOCK - 1) / PIXELS_PER_BLOCK;
    RtlCopyMemory(destination, source, blocks * PIXELS_PER_BLOCK * 3);
}
