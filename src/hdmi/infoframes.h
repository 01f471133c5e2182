// What an HDMI sink is told about picture and sound: InfoFrames (CEA-861) and the audio channel status
// (IEC 60958-3, consumer use). Pure functions; any IRQL.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

// Type to data bytes as they go out; all bytes sum to 0 modulo 256.
struct AVI_INFOFRAME {
    UCHAR Type;
    UCHAR Version;
    UCHAR Length;
    UCHAR Checksum;
    UCHAR Data[13]; // data byte n of the standard at [n - 1]
};
static_assert(sizeof(AVI_INFOFRAME) == 17);

struct AUDIO_INFOFRAME {
    UCHAR Type;
    UCHAR Version;
    UCHAR Length;
    UCHAR Checksum;
    UCHAR Data[10];
};
static_assert(sizeof(AUDIO_INFOFRAME) == 14);

struct AUDIO_CHANNEL_STATUS {
    UCHAR Bytes[5];
};

// For a picture of `width` x `height`, at any refresh rate. The checksum is set.
AVI_INFOFRAME INFOFRAME_BuildAvi(ULONG width, ULONG height);

// Two channels. The checksum is set.
AUDIO_INFOFRAME INFOFRAME_BuildAudio();

// Sets the checksum: the record's bytes then sum to 0 modulo 256.
void INFOFRAME_SetChecksum(_Inout_ AVI_INFOFRAME* frame);
void INFOFRAME_SetChecksum(_Inout_ AUDIO_INFOFRAME* frame);

// The sampling frequency code of the channel status; a rate without a code gets that of 48,000 Hz.
UCHAR INFOFRAME_SamplingCode(ULONG sampleRate);

// `channels` 0 counts as 1, more than 4 as 4.
AUDIO_CHANNEL_STATUS INFOFRAME_BuildChannelStatus(ULONG channels, UCHAR samplingCode);
