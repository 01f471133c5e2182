// EDID reading through the HDMI transmitter's own DDC master.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Reads 128-byte block `block` (0 to EDID_BLOCK_COUNT - 1; any other fails). FALSE when a transfer failed:
// `destination` then has the parts that were read before. Blocks for 1.4 to 1.6 s when the clock
// ticks every millisecond and for 3.7 to 4.4 s at its usual tick of 15.6 ms. Takes SerialMasterMutex.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_ReadEdidBlock(DEVICE_CONTEXT* context, UCHAR block,
                                         UCHAR (&destination)[EDID_BLOCK_SIZE]);

// Asks for `count` EDID bytes (at least 3) from `offset` of `segment` and stores the `count` - 3 bytes that
// the transmitter delivers, which are those from `offset` + 3 on.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS HDMI_DdcRead(DEVICE_CONTEXT* context, UCHAR segment, UCHAR offset, UCHAR count,
                                    _Out_writes_bytes_(count - 3) UCHAR* buffer)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);

// Each FALSE when a transfer failed. An abort blocks until the DDC master reports its end: in the worst
// case, when it never does, for 22 to 32 seconds.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_DdcAbortIfBusy(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_DdcAbort(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_DdcClearFifo(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
