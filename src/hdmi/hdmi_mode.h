// Programs the HDMI transmitter at a mode set: InfoFrames, video path and audio.
//
// HDMI_SetMode takes SerialMasterMutex for the whole sequence. The others are its steps; each returns FALSE
// at the first transfer that failed. They block for 10 to 32 ms per register.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Programs the transmitter for the current mode. FALSE when a step failed: it stops there and leaves audio
// and video muted. HdmiModeStale is cleared when every transfer succeeded and the transmitter has power.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetMode(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetAvMute(DEVICE_CONTEXT* context, BOOLEAN mute) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetAviInfoFrame(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetupVideo(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetAudioInfoFrame(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetupAudio(DEVICE_CONTEXT* context, ULONG sampleRate, ULONG channels)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
