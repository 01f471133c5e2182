// The external HDMI transmitter's state. Written by hdmi/.
#pragma once

#include <ntddk.h>

// Written under DisplayStateMutex; read elsewhere without it (shared fields).
struct HDMI_CONTEXT {
    BOOLEAN HdmiTransmitterPresent;
    BOOLEAN HdmiTransmitterPowered;
};
