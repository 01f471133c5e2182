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
    // A switch that DisplayOn names was not carried out, because the device was not in D0 in time or because
    // the mode could not be set; or the client is new and does not know the display's state. The next command
    // acts even if it asks for the same state.
    BOOLEAN SwitchOwed TSA_GUARDED_BY(DisplayPowerMutex);

    // State from the client's latest commands, read across threads (shared fields). DisplayOn is written
    // under DisplayPowerMutex only.
    UCHAR DisplayOn;
    ULONG Rotation;
    ULONG DesktopWidth; // of the last CMD_CREATE_FRAME_BUFFER
    ULONG DesktopHeight;
};
