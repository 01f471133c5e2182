// What the HDMI transmitter is told at a mode set: InfoFrames, video path and audio.
//
// HDMI_SetMode takes SerialMasterMutex for the whole programme; its single steps rely on that, and return
// TRUE on success. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Programs the transmitter for the current mode. FALSE when a step failed: it stops there and leaves audio
// and video muted. The caller holds DisplayStateMutex.
BOOLEAN HDMI_SetMode(DEVICE_CONTEXT* context);

BOOLEAN HDMI_SetAvMute(DEVICE_CONTEXT* context, BOOLEAN mute);
BOOLEAN HDMI_SetAviInfoFrame(DEVICE_CONTEXT* context);
BOOLEAN HDMI_SetupVideo(DEVICE_CONTEXT* context);
BOOLEAN HDMI_SetAudioInfoFrame(DEVICE_CONTEXT* context);
BOOLEAN HDMI_SetupAudio(DEVICE_CONTEXT* context, ULONG sampleRate, ULONG channels);
