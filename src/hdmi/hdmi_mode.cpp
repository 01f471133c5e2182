#include "hdmi/hdmi_mode.h"

#include "base/shared_field.h"
#include "device/device_context.h"
#include "hdmi/infoframes.h"
#include "hdmi/register_access.h"
#include "hdmi/transmitter.h"
#include "hdmi/transmitter_registers.h"
#include "usb/serial_master.h"

namespace {

// Pixel rates above this need the PLLs' high range.
constexpr ULONG HIGH_RANGE_PIXEL_RATE = 80000000;

constexpr ULONG SPDIF_LOCK_POLLS = 100;

constexpr ULONG AUDIO_SAMPLE_RATE = 44100;
constexpr ULONG AUDIO_CHANNELS = 2;

// Bits of HDMI_RESET: for audio FIFO and audio receiver, for the audio FIFO alone, for the video path.
constexpr UCHAR RESET_AUDIO = 0x14;
constexpr UCHAR RESET_AUDIO_FIFO = 0x10;
constexpr UCHAR RESET_VIDEO = 0x28;

constexpr HDMI_WRITE HIGH_RANGE[] = {
    {HDMI_CLOCK_PLL, 0x90, 0x80},
    {HDMI_DATA_PLL, 0x89, 0x80},
    {HDMI_PLL_RANGE, 0x10, 0x00},
};

constexpr HDMI_WRITE LOW_RANGE[] = {
    {HDMI_CLOCK_PLL, 0x90, 0x10},
    {HDMI_DATA_PLL, 0x89, 0x09},
    {HDMI_PLL_RANGE, 0x10, 0x10},
};

// The driver is held in reset while the PLLs change their range.
BOOLEAN SetPllRange(DEVICE_CONTEXT* context, bool high) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    return HDMI_Write(context, HDMI_DRIVER, 0x10) &&
           (high ? HDMI_WriteAll(context, HIGH_RANGE) : HDMI_WriteAll(context, LOW_RANGE)) &&
           HDMI_WriteMasked(context, HDMI_RESET, RESET_VIDEO, 0x00) && HDMI_Write(context, HDMI_DRIVER, 0x00);
}

// Writes a byte of the audio InfoFrame and takes what the transmitter then holds.
BOOLEAN WriteBack(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR* value)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    return HDMI_Write(context, transmitterRegister, *value) &&
           NT_SUCCESS(HDMI_ReadRegister(context, transmitterRegister, value));
}

// N = 4,096 for every sample rate; the transmitter measures CTS itself.
constexpr HDMI_WRITE AUDIO_CLOCK_REGENERATION[] = {
    {HDMI_BANK1_AUDIO_N, HDMI_WHOLE_BYTE, 0x00},       {HDMI_BANK1_AUDIO_N + 1, HDMI_WHOLE_BYTE, 0x10},
    {HDMI_BANK1_AUDIO_N + 2, HDMI_WHOLE_BYTE, 0x00},   {HDMI_BANK1_AUDIO_CTS, HDMI_WHOLE_BYTE, 0x00},
    {HDMI_BANK1_AUDIO_CTS + 1, HDMI_WHOLE_BYTE, 0x00}, {HDMI_BANK1_AUDIO_CTS + 2, HDMI_WHOLE_BYTE, 0x00},
};

// Clearing the regeneration register's bit 1 has CTS measured; the bit is protected.
constexpr HDMI_WRITE MEASURE_AUDIO_CLOCK[] = {
    {HDMI_PROTECTION, HDMI_WHOLE_BYTE, 0xC3},
    {HDMI_PROTECTION, HDMI_WHOLE_BYTE, 0xA5},
    {HDMI_AUDIO_REGENERATION, 0x02, 0x00},
    {HDMI_PROTECTION, HDMI_WHOLE_BYTE, 0xFF},
};

BOOLEAN SetUpAudioClock(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    constexpr UCHAR samplingFollowsStream = 0x08;
    UCHAR status = 0;
    if (!NT_SUCCESS(HDMI_ReadRegister(context, HDMI_AUDIO_STATUS, &status))) {
        return FALSE;
    }
    {
        HDMI_BANK1_SCOPE bank1(context);
        if (!HDMI_WriteAll(context, AUDIO_CLOCK_REGENERATION)) {
            return FALSE;
        }
    }
    if (!HDMI_WriteAll(context, MEASURE_AUDIO_CLOCK)) {
        return FALSE;
    }
    if (status & samplingFollowsStream) {
        return TRUE;
    }
    HDMI_BANK1_SCOPE bank1(context);
    (void)HDMI_Write(context, HDMI_BANK1_SAMPLING, 0x09);
    return HDMI_WriteMasked(context, HDMI_BANK1_SAMPLING + 1, 0xF0, 0x60);
}

// Only the write of the single byte decides the result: a sink plays also with an incomplete channel status.
BOOLEAN WriteChannelStatus(DEVICE_CONTEXT* context, const AUDIO_CHANNEL_STATUS& status)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    const UCHAR(&bytes)[5] = status.Bytes;
    HDMI_BANK1_SCOPE bank1(context);
    (void)HDMI_WriteGroup(context, HDMI_BANK1_CHANNEL_STATUS, 0x00, static_cast<UCHAR>((bytes[0] & 0x3E) * 2),
                          bytes[1], bytes[2] & 0x0F);
    const BOOLEAN written = HDMI_Write(context, HDMI_BANK1_CHANNEL_STATUS + 4, bytes[2] >> 4);
    (void)HDMI_WriteGroup(context, HDMI_BANK1_SAMPLING, bytes[3], bytes[4], 0x00, 0x00);
    return written;
}

// Polls until the receiver has locked, at most SPDIF_LOCK_POLLS times. Returns whether the last read
// succeeded: a receiver that does not lock in time is not a failure, because it locks when the source starts.
BOOLEAN AwaitSpdifLock(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    BOOLEAN read = FALSE;
    UCHAR status = 0;
    for (ULONG poll = 0; poll < SPDIF_LOCK_POLLS && !(status & HDMI_SPDIF_LOCKED); poll++) {
        read = NT_SUCCESS(HDMI_ReadRegister(context, HDMI_SPDIF_STATUS, &status));
    }
    return read;
}

// One I2S line, or S/PDIF, with samples of 16 bits.
BOOLEAN SetAudioFormat(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    constexpr UCHAR width16 = 0x00;
    constexpr UCHAR oneLine = 0x01;
    constexpr UCHAR fromSpdif = 0x10;
    constexpr UCHAR i2sMode = 0x41;
    constexpr UCHAR straightChannels = 0xE4; // two bits a channel: 0, 1, 2, 3
    const bool spdif = context->Settings.UseHdmiAudioSpdif != 0;

    const UCHAR control = width16 | oneLine | (spdif ? fromSpdif : 0);
    if (!HDMI_Write(context, HDMI_BANK, HDMI_BANK_0) ||
        !HDMI_WriteGroup(context, HDMI_AUDIO_FORMAT, control, spdif ? 0x00 : i2sMode, straightChannels,
                         spdif ? 0x10 : 0x00) ||
        !HDMI_WriteGroup(context, HDMI_AUDIO_FORMAT + 4, 0, 0, 0, 0)) {
        return FALSE;
    }
    if (!spdif) {
        return TRUE;
    }
    return HDMI_WriteMasked(context, HDMI_SPDIF_CONTROL, 1 << HDMI_SPDIF_START_BIT,
                            1 << HDMI_SPDIF_START_BIT) &&
           AwaitSpdifLock(context);
}

} // namespace

BOOLEAN HDMI_SetMode(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    HDMI_CONTEXT* hdmi = &context->Hdmi;
    hdmi->HdmiTransferFailed = FALSE;
    if (!HDMI_SetAvMute(context, TRUE) || !HDMI_SetAviInfoFrame(context) || !HDMI_SetupVideo(context) ||
        !HDMI_SetAudioInfoFrame(context) || !HDMI_SetupAudio(context, AUDIO_SAMPLE_RATE, AUDIO_CHANNELS) ||
        !HDMI_SetAvMute(context, FALSE)) {
        return FALSE;
    }
    // After a failed change of the bank the writes that follow reach other registers, although each succeeds.
    if (SHARED_Read(hdmi->HdmiTransmitterPowered) && !hdmi->HdmiTransferFailed) {
        SHARED_Write(hdmi->HdmiModeStale, FALSE);
    }
    return TRUE;
}

BOOLEAN HDMI_SetAvMute(DEVICE_CONTEXT* context, BOOLEAN mute) {
    return HDMI_Write(context, HDMI_BANK, HDMI_BANK_0) &&
           HDMI_WriteMasked(context, HDMI_AV_MUTE, 0x01, mute ? 1 : 0) &&
           HDMI_Write(context, HDMI_GENERAL_CONTROL_PACKET, HDMI_PACKET_REPEAT);
}

// A frame that arrives incomplete has a wrong checksum and is ignored by the sink, so only the start of its
// transmission decides.
BOOLEAN HDMI_SetAviInfoFrame(DEVICE_CONTEXT* context) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    const AVI_INFOFRAME frame = INFOFRAME_BuildAvi(mode.Width, mode.Height);
    const UCHAR(&data)[13] = frame.Data;
    {
        HDMI_BANK1_SCOPE bank1(context);
        (void)HDMI_WriteGroup(context, HDMI_BANK1_AVI_INFOFRAME, data[0], data[1], data[2], data[3]);
        (void)HDMI_WriteGroup(context, HDMI_BANK1_AVI_INFOFRAME + 4, data[4], frame.Checksum, data[5],
                              data[6]);
        (void)HDMI_WriteGroup(context, HDMI_BANK1_AVI_INFOFRAME + 8, data[7], data[8], data[9], data[10]);
        (void)HDMI_WriteGroup(context, HDMI_BANK1_AVI_INFOFRAME + 12, data[11], data[12], 0x00, 0x00);
    }
    return HDMI_Write(context, HDMI_AVI_PACKET, HDMI_PACKET_REPEAT);
}

BOOLEAN HDMI_SetupVideo(DEVICE_CONTEXT* context) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    const ULONG pixelRate = mode.HorizontalTotal * mode.VerticalTotal * mode.Refresh;
    const UCHAR sinkIsHdmi = SHARED_Read(context->Control.MonitorIsDvi) ? 0x00 : 0x01;
    const HDMI_WRITE videoPath[] = {
        {HDMI_RESET, HDMI_WHOLE_BYTE, 0x09},
        {HDMI_VIDEO_INPUT, 0xFD, 0x01}, // bit 1 stays
        {HDMI_BANK, 0x10, 0x10},
        {HDMI_COLOR_SPACE, 0xE3, 0x00}, // bits 2 to 4 stay
        {HDMI_SINK_IS_HDMI, HDMI_WHOLE_BYTE, sinkIsHdmi},
    };
    if (!HDMI_WriteAll(context, videoPath) || !SetPllRange(context, pixelRate > HIGH_RANGE_PIXEL_RATE) ||
        !HDMI_Write(context, HDMI_RESET, 0x01)) {
        return FALSE;
    }
    (void)HDMI_Write(context, HDMI_BANK, HDMI_BANK_0);
    return HDMI_Write(context, HDMI_DRIVER, 0x00);
}

// The checksum covers what the transmitter holds. Data byte 3 is never written and 0 since the reset.
BOOLEAN HDMI_SetAudioInfoFrame(DEVICE_CONTEXT* context) {
    AUDIO_INFOFRAME frame = INFOFRAME_BuildAudio();
    {
        constexpr UCHAR data = HDMI_BANK1_AUDIO_INFOFRAME;
        HDMI_BANK1_SCOPE bank1(context);
        if (!WriteBack(context, data, &frame.Data[0]) || !WriteBack(context, data + 1, &frame.Data[1]) ||
            !WriteBack(context, data + 3, &frame.Data[3]) || !WriteBack(context, data + 4, &frame.Data[4])) {
            return FALSE;
        }
        INFOFRAME_SetChecksum(&frame);
        if (!HDMI_Write(context, HDMI_BANK1_AUDIO_INFOFRAME_CHECKSUM, frame.Checksum)) {
            return FALSE;
        }
    }
    return HDMI_Write(context, HDMI_AUDIO_PACKET, HDMI_PACKET_REPEAT);
}

BOOLEAN HDMI_SetupAudio(DEVICE_CONTEXT* context, ULONG sampleRate, ULONG channels) {
    constexpr UCHAR spdifSelected = 0x10;
    // S/PDIF keeps only its bit of the format register, I2S keeps all the others.
    const UCHAR formatBitsCleared =
        static_cast<UCHAR>(context->Settings.UseHdmiAudioSpdif != 0 ? ~spdifSelected : spdifSelected);
    const HDMI_WRITE prepare[] = {
        {HDMI_RESET, RESET_AUDIO, RESET_AUDIO},
        {HDMI_AUDIO_CLOCK, HDMI_WHOLE_BYTE, 0x15},
        {HDMI_BANK, 0x10, 0x00},
        {HDMI_AUDIO_FORMAT, formatBitsCleared, 0x00},
    };
    const UCHAR code = INFOFRAME_SamplingCode(sampleRate);
    return HDMI_WriteAll(context, prepare) && SetUpAudioClock(context) &&
           HDMI_WriteMasked(context, HDMI_RESET, RESET_AUDIO, RESET_AUDIO_FIFO) &&
           WriteChannelStatus(context, INFOFRAME_BuildChannelStatus(channels, code)) &&
           SetAudioFormat(context) && HDMI_WriteMasked(context, HDMI_AUDIO_INPUT, 0x80, 0x00) &&
           HDMI_WriteMasked(context, HDMI_RESET, RESET_AUDIO, 0x00);
}
