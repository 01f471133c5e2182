// The client's session with one adapter: exchange record and the state that its latest commands set. Written
// by client/.
#pragma once

#include "base/lock.h"
#include "device/client_abi.h"

struct CLIENT_CONTEXT {
    // Written by the exchange that raised `ClientCount` to 1; read while a present of that client is under
    // way.
    INTERFACE_RECORD ClientInterface;
    LONG ClientCount; // interlocked; 0 or 1 outside an exchange

    // Held while the display is switched on or off, so that two commands at once leave the state of the later
    // one. D0 exit takes it so that a switch under way finishes before the power is removed.
    DEVICE_MUTEX DisplayPowerMutex;
    BOOLEAN NewSession TSA_GUARDED_BY(DisplayPowerMutex); // no display switch since the last client left

    // State from the client's latest commands, read across threads (shared fields). DisplayOn is written
    // under DisplayPowerMutex only.
    UCHAR DisplayOn;
    ULONG Rotation;
    ULONG DesktopWidth; // of the last CMD_CREATE_FRAME_BUFFER
    ULONG DesktopHeight;
};
