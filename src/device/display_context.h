// Mode and monitor state of one adapter.
#pragma once

#include "device/client_abi.h"
#include "device/mode_parameters.h"

#include <ntddk.h>

constexpr ULONG EDID_BLOCK_COUNT = 8;
constexpr ULONG MONITOR_MODE_COUNT = 32;

struct MONITOR_MODE {
    ULONG Width;
    ULONG Height;
    ULONG Refresh;
};

struct DISPLAY_CONTEXT {
    MODE_PARAMETERS Mode;
    ULONG WidthBeforeSleep; // of a mode forgotten for a sleep; guarded like the mode
    ULONG HeightBeforeSleep;
    BOOLEAN PllUnknown; // the adapter may run another clock than the mode's; guarded like the mode

    // Set at hardware preparation.
    DEVICE_OBJECT* PhysicalDeviceObject;

    // Guarded by MonitorMutex; of length 0 while no device interface is registered.
    UNICODE_STRING InterfaceSymbolicLinkName;

    // Guarded by MonitorMutex.
    UCHAR EdidBlocks[EDID_BLOCK_COUNT][EDID_BLOCK_SIZE];
    ULONG MonitorModeCount;
    MONITOR_MODE MonitorModes[MONITOR_MODE_COUNT];
    BOOLEAN EdidViaAdapterDdc;

    // Written under MonitorMutex; polled elsewhere (shared fields).
    BOOLEAN MonitorConnected;
    BOOLEAN MonitorIsDvi;

    // The HDMI transmitter was not programmed since the mode's size changed. Guarded by RenderStartStopMutex.
    BOOLEAN HdmiModeStale;

    // While set, frame-error reports are ignored. Written by power callbacks, display switches and mode
    // changes, each of which clears what it set; the later word counts (shared field).
    BOOLEAN FrameErrorHandlingSuspended;

    // Video output is on. Guarded by DisplayStateMutex.
    BOOLEAN OutputActive;
};
