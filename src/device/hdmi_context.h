// The external HDMI transmitter's state. Written by hdmi/.
#pragma once

#include <ntddk.h>

// Written under DisplayStateMutex; read elsewhere without it (shared fields).
struct HDMI_CONTEXT {
    BOOLEAN HdmiTransmitterPresent;
    BOOLEAN HdmiTransmitterPowered;

    // The transmitter is not programmed for the mode: the mode's size changed, or a reset cleared the
    // registers.
    BOOLEAN HdmiModeStale;

    // A transfer to the transmitter failed since HDMI_SetMode began. Guarded by SerialMasterMutex of
    // USB_CONTEXT.
    BOOLEAN HdmiTransferFailed;
};
