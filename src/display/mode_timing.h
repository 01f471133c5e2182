// Makes a display mode current: parameters, timing generator, pixel clock, bulk pipe.
//
// PASSIVE_LEVEL; each blocks for some thirty register accesses. The render pipeline is stopped.
#pragma once

#include "device/mode_parameters.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Completes `parameters` from the mode table, stores them as the current mode and programs the adapter.
// STATUS_INVALID_PARAMETER: no such mode, the adapter was not touched. STATUS_UNSUCCESSFUL: a timing register
// did not take its value. Otherwise the status of the interface or pipe selection. After a failure the stream
// must not be started. Takes DropFrameCheckMutex.
[[nodiscard]] NTSTATUS MODE_Program(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters);

// Writes the current mode's timing to the adapter, the pixel clock only when `pllChanged`. FALSE at the first
// register that does not hold what was written; if that is the pixel clock's, the current mode's PLL word is
// forgotten. The caller holds DropFrameCheckMutex.
[[nodiscard]] BOOLEAN MODE_ProgramTiming(DEVICE_CONTEXT* context, BOOLEAN pllChanged);

// Replaces the timings in which the mode table differs from CEA-861: an HDMI sink may insist on them. The
// caller holds DropFrameCheckMutex.
void MODE_ApplyHdmiTiming(DEVICE_CONTEXT* context);

// Forgets the current mode and its pixel clock: the next mode set programs everything. Takes
// DropFrameCheckMutex.
void MODE_Forget(DEVICE_CONTEXT* context);
