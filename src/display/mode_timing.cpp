#include "display/mode_timing.h"

#include "base/shared_field.h"
#include "device/device_context.h"
#include "display/mode_tables.h"
#include "usb/configuration.h"
#include "usb/registers.h"

namespace {

// Bits of REGISTER_VIDEO_FORMAT.
constexpr ULONG FORMAT_ALWAYS = 1u << 0 | 1u << 7;
constexpr ULONG FORMAT_SYNC_POLARITY = 1u << 2 | 1u << 3; // set for every mode but 640 x 480 at 60 Hz
constexpr ULONG FORMAT_RGB565 = 1u << 6;
constexpr ULONG FORMAT_COMPRESSED = 1u << 24;
constexpr ULONG FORMAT_RGB8 = 1u << 25;
constexpr ULONG FORMAT_RGB555 = 1u << 31;
constexpr ULONG FORMAT_FIELDS = 0x9F0020C0; // everything of the last mode, the polarity aside

// Bits of REGISTER_STREAM_CONTROL.
constexpr ULONG CONTROL_FRAME_ERROR_BUCKET = 1u << 21;
constexpr ULONG CONTROL_BANDWIDTH = 1u << STREAM_CONTROL_BANDWIDTH_BIT;
constexpr ULONG CONTROL_FRAMES_END_WITH_ZERO_LENGTH = 1u << 28;
constexpr ULONG CONTROL_FRAMES_END_BY_COUNT = 1u << 29;
constexpr ULONG CONTROL_FIELDS = 0x39682000;

constexpr ULONG ORIGIN_FIELDS = 0x3FFF0000;

constexpr ULONG COMPRESSED_LOW_THRESHOLD = 0x46000;
constexpr ULONG COMPRESSED_HIGH_THRESHOLD = 0x78000;

constexpr BOOLEAN IsMode(const MODE_PARAMETERS& mode, ULONG width, ULONG height, ULONG refresh) {
    return mode.Width == width && mode.Height == height && mode.Refresh == refresh;
}

// The largest 24-bit frames go out back to back and the adapter counts their bytes; a zero-length transfer
// ends every other frame.
ULONG ChooseZeroLengthFlag(const MODE_PARAMETERS& mode) {
    const BOOLEAN countsBytes = mode.Width >= 1600 && mode.Height >= 1050 && mode.Refresh == 60 &&
                                mode.OutputColorMode == OUTPUT_COLOR_24_BIT;
    return countsBytes ? 0 : 1;
}

void ChooseCompressionSettings(MODE_PARAMETERS* mode) {
    const BOOLEAN is16Bit = mode->OutputColorMode == OUTPUT_COLOR_16_BIT;
    mode->CompressionLevel = is16Bit ? 5 : 0;
    mode->CompressionLevelMin = is16Bit ? 3 : 0;
    mode->CompressionLevelMax = 12;
    mode->CompressedLowThreshold = COMPRESSED_LOW_THRESHOLD;
    mode->CompressedHighThreshold = COMPRESSED_HIGH_THRESHOLD;
}

ULONG ChooseTable(ULONG outputColorMode) {
    switch (outputColorMode) {
    case OUTPUT_COLOR_16_BIT:
        return MODE_TABLE_16_BIT;
    case OUTPUT_COLOR_8_BIT:
        return MODE_TABLE_8_BIT;
    default:
        return MODE_TABLE_24_BIT;
    }
}

void TakeTiming(MODE_PARAMETERS* mode, const VIDEO_MODE_ENTRY& entry) {
    mode->HorizontalTotal = entry.HorizontalTotal;
    mode->HorizontalSync = entry.HorizontalSync;
    mode->HorizontalBackPorch = entry.HorizontalBackPorch;
    mode->VerticalTotal = entry.VerticalTotal;
    mode->VerticalSync = entry.VerticalSync;
    mode->VerticalBackPorch = entry.VerticalBackPorch;
    mode->HorizontalSizeImage = entry.HorizontalSizeImage;
    mode->HorizontalSyncImage = entry.HorizontalSyncImage;
    mode->VerticalSizeImage = entry.VerticalSizeImage;
    mode->VerticalSyncImage = entry.VerticalSyncImage;
}

ULONG StreamControlBits(const DEVICE_CONTEXT* context) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    ULONG bits = mode.ZeroLengthFlag == 1 ? CONTROL_FRAMES_END_WITH_ZERO_LENGTH : CONTROL_FRAMES_END_BY_COUNT;
    if (context->Settings.UseFrameErrorBucket != 0) {
        bits |= CONTROL_FRAME_ERROR_BUCKET;
    }
    if (mode.BandwidthFlag != 0 && mode.OutputColorMode == OUTPUT_COLOR_24_BIT) {
        bits |= CONTROL_BANDWIDTH;
    }
    return bits;
}

ULONG VideoFormatBits(const MODE_PARAMETERS& mode) {
    ULONG bits = FORMAT_ALWAYS;
    if (mode.CompressionEnabled != 0) {
        bits |= FORMAT_COMPRESSED;
    }
    if (mode.OutputColorMode == OUTPUT_COLOR_16_BIT) {
        bits |= mode.Rgb555Enable == 1 ? FORMAT_RGB555 : FORMAT_RGB565;
    } else if (mode.OutputColorMode == OUTPUT_COLOR_8_BIT) {
        bits |= FORMAT_RGB8;
    }
    if (!IsMode(mode, 640, 480, 60)) {
        bits |= FORMAT_SYNC_POLARITY;
    }
    return bits;
}

// FALSE when the register holds something else afterwards. A write that failed is ignored: the adapter may
// have been removed, and then its registers do not matter.
BOOLEAN WriteTimingImage(DEVICE_CONTEXT* context, ULONG offset, ULONG image) {
    if (!REG_Write(context, offset, &image)) {
        return TRUE;
    }
    ULONG readBack;
    return REG_Read(context, offset, &readBack) && readBack == image;
}

BOOLEAN ClearOrigin(DEVICE_CONTEXT* context) {
    ULONG origin;
    if (!REG_Read(context, REGISTER_ORIGIN, &origin)) {
        return TRUE;
    }
    origin &= ~ORIGIN_FIELDS;
    return REG_Write(context, REGISTER_ORIGIN, &origin);
}

// Steps after the parameters are complete.
NTSTATUS ProgramAdapter(DEVICE_CONTEXT* context, BOOLEAN pllChanged)
    TSA_REQUIRES(context->Display.DropFrameCheckMutex) {
    if (!MODE_ProgramTiming(context, pllChanged)) {
        return STATUS_UNSUCCESSFUL;
    }
    const NTSTATUS status =
        USB_SelectAlternateSetting(context, context->Usb.UsbInterfaces[USB_STREAMING_INTERFACE]);
    return NT_SUCCESS(status) ? USB_ConfigurePipes(context) : status;
}

// The mode in force, to be changed.
MODE_PARAMETERS* WritableMode(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DropFrameCheckMutex) {
    return &context->Display.Mode;
}

} // namespace

NTSTATUS MODE_Program(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters) {
    MUTEX_GUARD guard(context->Display.DropFrameCheckMutex);
    MODE_PARAMETERS* mode = WritableMode(context);

    // The PLL word is kept: it is the clock that the adapter runs.
    const ULONG runningPllWord = mode->PllWord;
    *mode = *parameters;
    mode->PllWord = runningPllWord;
    mode->ZeroLengthFlag = ChooseZeroLengthFlag(*mode);
    if (context->Settings.UseBandwidthDetectionEnable != 0) {
        mode->BandwidthFlag = 1;
    }
    if (mode->CompressionEnabled != 0) {
        ChooseCompressionSettings(mode);
    }

    VIDEO_MODE_ENTRY entry;
    if (!MODE_LookupTable(ChooseTable(mode->OutputColorMode), mode->Width, mode->Height, mode->Refresh,
                          &entry)) {
        return STATUS_INVALID_PARAMETER;
    }
    TakeTiming(mode, entry);
    if (SHARED_Read(context->Hdmi.HdmiTransmitterPresent)) {
        MODE_ApplyHdmiTiming(context);
    }
    const BOOLEAN pllChanged = entry.PllWord != mode->PllWord || context->Display.PllUnknown;
    mode->PllWord = entry.PllWord;

    mode->AutoUpdateEnabled = 1;
    return ProgramAdapter(context, pllChanged);
}

BOOLEAN MODE_ProgramTiming(DEVICE_CONTEXT* context, BOOLEAN pllChanged) {
    MODE_PARAMETERS& mode = context->Display.Mode;
    if (pllChanged) {
        REG_SetBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_PLL_BIT);
        REG_Write(context, REGISTER_PLL, &mode.PllWord);
    }
    REG_SetBit(context, REGISTER_SCAN_CONTROL, SCAN_CONTROL_OUTPUT_OFF_BIT);

    ULONG pllWord; // 0, which no mode has, when the read fails
    (void)REG_Read(context, REGISTER_PLL, &pllWord);
    if (pllWord != mode.PllWord) {
        // The adapter may run any clock: the next mode set must write it, even for the same mode.
        context->Display.PllUnknown = TRUE;
        return FALSE;
    }
    context->Display.PllUnknown = FALSE;

    REG_ClearMask(context, REGISTER_STREAM_CONTROL, CONTROL_FIELDS);
    REG_SetMask(context, REGISTER_STREAM_CONTROL, StreamControlBits(context));

    const ULONG polarity = IsMode(mode, 640, 480, 60) ? FORMAT_SYNC_POLARITY : 0;
    REG_ClearMask(context, REGISTER_VIDEO_FORMAT, FORMAT_FIELDS | polarity);
    REG_SetMask(context, REGISTER_VIDEO_FORMAT, VideoFormatBits(mode));

    if (!WriteTimingImage(context, REGISTER_HORIZONTAL_SIZE, mode.HorizontalSizeImage) ||
        !WriteTimingImage(context, REGISTER_HORIZONTAL_SYNC, mode.HorizontalSyncImage) ||
        !WriteTimingImage(context, REGISTER_VERTICAL_SIZE, mode.VerticalSizeImage) ||
        !WriteTimingImage(context, REGISTER_VERTICAL_SYNC, mode.VerticalSyncImage) || !ClearOrigin(context)) {
        return FALSE;
    }
    REG_ClearBit(context, REGISTER_OUTPUT, OUTPUT_TIMING_BIT);
    return TRUE;
}

void MODE_ApplyHdmiTiming(DEVICE_CONTEXT* context) {
    MODE_PARAMETERS* mode = WritableMode(context);
    if (IsMode(*mode, 640, 480, 60)) {
        mode->HorizontalBackPorch = 48;
        mode->VerticalBackPorch = 33;
        mode->HorizontalSyncImage = 0x600091;
        mode->VerticalSyncImage = 0x2420024;
    } else if (IsMode(*mode, 1280, 720, 60)) {
        mode->VerticalBackPorch = 20;
        mode->VerticalSyncImage = 0x1A5001A;
    }
}

void MODE_Forget(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Display.DropFrameCheckMutex);
    MODE_PARAMETERS* mode = WritableMode(context);
    mode->Width = 0;
    mode->Height = 0;
    mode->Refresh = 0;
    mode->PllWord = 0;
}

void MODE_ForgetForSleep(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Display.DropFrameCheckMutex);
    DISPLAY_CONTEXT* display = &context->Display;
    MODE_PARAMETERS* mode = WritableMode(context);
    display->WidthBeforeSleep = mode->Width;
    display->HeightBeforeSleep = mode->Height;
    mode->Width = 0;
    mode->Height = 0;
    mode->Refresh = 0;
}

void MODE_RestoreTiming(DEVICE_CONTEXT* context) {
    MUTEX_GUARD mode(context->Display.DropFrameCheckMutex);
    const ULONG expected = context->Display.Mode.PllWord;
    ULONG pllWord = 0;
    // Without a PLL word no mode is in force and there is no timing to restore.
    if (!REG_Read(context, REGISTER_PLL, &pllWord) || pllWord == expected || expected == 0) {
        return;
    }
    // After a failure the monitor stays dark until the next mode set.
    (void)MODE_ProgramTiming(context, TRUE);
}
