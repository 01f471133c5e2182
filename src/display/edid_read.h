// Reading the monitor's EDID, through the adapter's serial master or through an HDMI transmitter.
//
// PASSIVE_LEVEL; a block takes some 200 ms. The caller holds MonitorMutex; SerialMasterMutex is taken here.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Reads, checks and rewrites the EDID. Without a usable one, block 0 is left zero.
void EDID_Acquire(DEVICE_CONTEXT* context);

// Reads one block (0 to 7) over the adapter's own serial master. FALSE at the first failed transaction.
[[nodiscard]] BOOLEAN EDID_ReadBlock(DEVICE_CONTEXT* context, ULONG block);

// Reads the base block and the extensions that it counts. FALSE when a block cannot be read.
[[nodiscard]] BOOLEAN EDID_ReadAll(DEVICE_CONTEXT* context);
