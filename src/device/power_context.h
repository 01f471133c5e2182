// Power bookkeeping. Written by driver/, in the power callbacks, which the framework serializes.
#pragma once

#include <wdf.h>

struct POWER_CONTEXT {
    WDF_POWER_DEVICE_STATE PreviousPowerState;
    WDF_POWER_DEVICE_STATE CurrentPowerState; // shared field; changes under DisplayPowerMutex
};
