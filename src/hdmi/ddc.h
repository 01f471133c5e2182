// EDID reading through the HDMI transmitter's own DDC master.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Reads 128-byte block `block` into EdidBlocks[block]. FALSE when a transfer failed (the parts of the block
// read until then stay) or when EdidBlocks has no such block. The caller holds MonitorMutex;
// SerialMasterMutex is taken here. PASSIVE_LEVEL.
[[nodiscard]] BOOLEAN HDMI_ReadEdidBlock(DEVICE_CONTEXT* context, UCHAR block);

// Asks for `count` EDID bytes (at least 3) from `offset` of `segment` and stores the `count` - 3 bytes that
// the transmitter delivers, which are those from `offset` + 3 on.
[[nodiscard]] NTSTATUS HDMI_DdcRead(DEVICE_CONTEXT* context, UCHAR segment, UCHAR offset, UCHAR count,
                                    UCHAR* buffer);

BOOLEAN HDMI_DdcAbortIfBusy(DEVICE_CONTEXT* context);
BOOLEAN HDMI_DdcAbort(DEVICE_CONTEXT* context);
BOOLEAN HDMI_DdcClearFifo(DEVICE_CONTEXT* context);
