// Reading the monitor's EDID, through the adapter's serial master or through an HDMI transmitter.
//
// Reading a block blocks for 0.2 to 0.5 s, as the clock's tick is 1 or 15.6 ms, and through a transmitter
// for up to 4.4 s. SerialMasterMutex is taken inside. `edid` belongs to the caller for the whole call: that
// of CONTROL_CONTEXT is guarded by MonitorMutex.
#pragma once

#include "base/annotations.h"
#include "device/monitor_edid.h"

struct DEVICE_CONTEXT;

// Reads, checks and rewrites the EDID, by the path that ViaAdapterDdc says, and updates IsDvi. Without a
// usable EDID, block 0 is left zero.
_IRQL_requires_(PASSIVE_LEVEL)
void EDID_Acquire(DEVICE_CONTEXT* context, MONITOR_EDID* edid);

// Reads one block (0 to 7) over the adapter's own serial master. FALSE at the first failed transaction.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN EDID_ReadBlock(DEVICE_CONTEXT* context, MONITOR_EDID* edid, ULONG block);

// Reads the base block and the extensions that it counts. FALSE when a block cannot be read.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN EDID_ReadAll(DEVICE_CONTEXT* context, MONITOR_EDID* edid);
