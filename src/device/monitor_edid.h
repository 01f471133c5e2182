// A monitor's EDID and what was learned from it.
#pragma once

#include "device/client_abi.h"

#include <ntddk.h>

constexpr ULONG EDID_BLOCK_COUNT = 8;
constexpr ULONG MONITOR_MODE_COUNT = 32;

struct MONITOR_MODE {
    ULONG Width;
    ULONG Height;
    ULONG Refresh;
};

struct MONITOR_EDID {
    UCHAR EdidBlocks[EDID_BLOCK_COUNT][EDID_BLOCK_SIZE];
    ULONG MonitorModeCount;
    MONITOR_MODE MonitorModes[MONITOR_MODE_COUNT];
    BOOLEAN ViaAdapterDdc; // the monitor's DDC lines lead to the adapter, not to the transmitter
    BOOLEAN IsDvi;         // a transmitter takes the monitor for a DVI one; kept while nothing says otherwise
};
