#include "pixel/transform.h"

#include "device/device_context.h"

namespace {

// A 16-bit layout, from 8-bit channels to bit positions.
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

// A processor without SSSE3 converts every pair too, by the per-pixel formulas: a render buffer that kept its
// previous contents would show an old frame as if it were the new one.
void TransformFramePerPixel(const MODE_PARAMETERS& mode, UCHAR* destination, const UCHAR* source,
                            ULONG pixelCount) {
    const ULONG outputBytes = PIXEL_OutputBytes(mode);
    if (mode.SourceBytesPerPixel == 4) {
        if (outputBytes == 3) {
            PIXEL_Bgrx32ToBgr24(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgrx32ToRgb16(destination, source, pixelCount, mode.Rgb555Enable);
        } else {
            PIXEL_Bgrx32ToRgb8(destination, source, pixelCount);
        }
    } else if (mode.SourceBytesPerPixel == 3) {
        if (outputBytes == 3) {
            PIXEL_Copy24Blocks(destination, source, pixelCount);
        } else if (outputBytes == 2) {
            PIXEL_Bgr24ToRgb16(destination, source, pixelCount, mode.Rgb555Enable);
        } else {
            PIXEL_Bgr24ToRgb8(destination, source, pixelCount);
        }
    }
}

} // namespace

ULONG PIXEL_OutputBytes(const MODE_PARAMETERS& mode) {
    switch (mode.OutputColorMode) {
    case OUTPUT_COLOR_8_BIT:
        return 1;
    case OUTPUT_COLOR_16_BIT:
        return 2;
    default:
        return 3;
    }
}

void PIXEL_TransformFrame(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source,
                          ULONG pixelCount) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    if (pixelCount == 0) {
        return;
    }
    if (context->Cpu.CpuHasSsse3) {
        PIXEL_TransformFrameSimd(context, destination, source, pixelCount, PIXEL_OutputBytes(mode),
                                 mode.SourceBytesPerPixel);
    } else {
        TransformFramePerPixel(mode, destination, source, pixelCount);
    }
}

void PIXEL_TransformFrameSimd(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source,
                              ULONG pixelCount, ULONG outputBytesPerPixel, ULONG sourceBytesPerPixel) {
    if (outputBytesPerPixel == 3 && sourceBytesPerPixel == 4) {
        PIXEL_Bgrx32ToBgr24Blocks(destination, source, pixelCount);
    } else if (outputBytesPerPixel == 3 && sourceBytesPerPixel == 3) {
        PIXEL_Copy24Blocks(destination, source, pixelCount);
    } else if (outputBytesPerPixel == 2 && sourceBytesPerPixel == 3) {
        PIXEL_Bgr24ToRgb16Blocks(destination, source, pixelCount, context->Display.Mode.Rgb555Enable);
    } else if (outputBytesPerPixel == 2 && sourceBytesPerPixel == 4) {
        PIXEL_Bgrx32ToRgb16Blocks(context, destination, source, pixelCount);
    } else if (outputBytesPerPixel == 1 && sourceBytesPerPixel == 3) {
        PIXEL_Bgr24ToRgb8Blocks(destination, source, pixelCount);
    } else if (outputBytesPerPixel == 1 && sourceBytesPerPixel == 4) {
        PIXEL_Bgrx32ToRgb8Blocks(destination, source, pixelCount);
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
