#include "hdmi/infoframes.h"

namespace {

// Data byte 1: RGB, active format described. Data byte 2: colorimetry, picture aspect and "active format as
// the picture". Data byte 4: the video identification code; 0 for a size that has none.
constexpr UCHAR RGB_WITH_ACTIVE_FORMAT = 0x10;
constexpr UCHAR ITU601_4_TO_3 = 0x58;
constexpr UCHAR ITU709_16_TO_9 = 0xA8;

struct AVI_PICTURE {
    ULONG Width;
    ULONG Height;
    UCHAR Aspect;
    UCHAR IdentificationCode;
};

constexpr AVI_PICTURE AVI_PICTURES[] = {
    {640, 480, ITU601_4_TO_3, 1},
    {1280, 720, ITU709_16_TO_9, 4},
    {1920, 1080, ITU709_16_TO_9, 16},
};

struct SAMPLING_CODE {
    ULONG Rate;
    UCHAR Code;
};

constexpr SAMPLING_CODE SAMPLING_CODES[] = {
    {32000, 3}, {44100, 0}, {48000, 2}, {88200, 8}, {96000, 10}, {176400, 12}, {192000, 14}, {768000, 9},
};
constexpr UCHAR SAMPLING_CODE_OF_OTHER_RATES = 2;

constexpr UCHAR WORD_LENGTH_16_BITS = 0x2;

template <typename Frame>
void SetChecksum(Frame* frame) {
    const UCHAR* bytes = reinterpret_cast<const UCHAR*>(frame);
    ULONG sum = 0;
    frame->Checksum = 0;
    for (ULONG index = 0; index < sizeof(Frame); index++) {
        sum += bytes[index];
    }
    frame->Checksum = static_cast<UCHAR>(0 - sum);
}

} // namespace

AVI_INFOFRAME INFOFRAME_BuildAvi(ULONG width, ULONG height) {
    AVI_INFOFRAME frame = {0x82, 0x02, sizeof(frame.Data), 0, {RGB_WITH_ACTIVE_FORMAT, ITU601_4_TO_3}};
    for (const AVI_PICTURE& picture : AVI_PICTURES) {
        if (picture.Width == width && picture.Height == height) {
            frame.Data[1] = picture.Aspect;
            frame.Data[3] = picture.IdentificationCode;
        }
    }
    INFOFRAME_SetChecksum(&frame);
    return frame;
}

AUDIO_INFOFRAME INFOFRAME_BuildAudio() {
    constexpr UCHAR twoChannels = 0x01;
    AUDIO_INFOFRAME frame = {0x84, 0x01, sizeof(frame.Data), 0, {twoChannels}};
    INFOFRAME_SetChecksum(&frame);
    return frame;
}

void INFOFRAME_SetChecksum(AVI_INFOFRAME* frame) {
    SetChecksum(frame);
}

void INFOFRAME_SetChecksum(AUDIO_INFOFRAME* frame) {
    SetChecksum(frame);
}

UCHAR INFOFRAME_SamplingCode(ULONG sampleRate) {
    for (const SAMPLING_CODE& known : SAMPLING_CODES) {
        if (known.Rate == sampleRate) {
            return known.Code;
        }
    }
    return SAMPLING_CODE_OF_OTHER_RATES;
}

AUDIO_CHANNEL_STATUS INFOFRAME_BuildChannelStatus(ULONG channels, UCHAR samplingCode) {
    constexpr ULONG mostChannels = 4;
    ULONG count = channels == 0 ? 1 : channels;
    count = count > mostChannels ? mostChannels : count;
    return {{0, 0, static_cast<UCHAR>(count), samplingCode,
             static_cast<UCHAR>(~samplingCode << 4 | WORD_LENGTH_16_BITS)}};
}
