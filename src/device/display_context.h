// The display mode of one adapter and its video output. Written by display/.
#pragma once

#include "base/lock.h"
#include "device/mode_parameters.h"

#include <ntddk.h>

struct DISPLAY_CONTEXT {
    // The mode in force. It changes only while the render pipeline is stopped, under DropFrameCheckMutex. A
    // task that stops the pipeline, changes the mode and starts the pipeline again holds RenderStartStopMutex
    // throughout. Read under either mutex, or by the frame update thread between RENDER_BeginFill and
    // RENDER_EndFill.
    DEVICE_MUTEX DropFrameCheckMutex;
    MODE_PARAMETERS Mode;
    ULONG WidthBeforeSleep; // of a mode forgotten for a sleep; guarded like the mode
    ULONG HeightBeforeSleep;
    BOOLEAN PllUnknown TSA_GUARDED_BY(DropFrameCheckMutex); // the adapter's clock may not be the mode's

    // Also held while the HDMI transmitter's presence or power changes (device/hdmi_context.h).
    DEVICE_MUTEX DisplayStateMutex;
    BOOLEAN OutputActive TSA_GUARDED_BY(DisplayStateMutex); // video output is on
};
