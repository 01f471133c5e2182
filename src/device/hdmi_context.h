// The external HDMI transmitter's state. Written by hdmi/.
#pragma once

#include <ntddk.h>

// Written under DisplayStateMutex; polled by the client's display-off (shared fields).
struct HDMI_CONTEXT {
    BOOLEAN HdmiTransmitterPresent;
    BOOLEAN HdmiTransmitterPowered;
};
