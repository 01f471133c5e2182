// Makes a display mode current: parameters, timing generator, pixel clock, bulk pipe.
//
// The functions that access registers block for up to some thirty register accesses. The render pipeline is
// stopped.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Completes `parameters` from the mode table, stores them as the current mode and programs the adapter.
// STATUS_INVALID_PARAMETER: no such mode, the adapter was not touched. STATUS_UNSUCCESSFUL: a timing register
// did not take its value. Otherwise the status of the interface or pipe selection. After a failure the stream
// must not be started. Takes DropFrameCheckMutex.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS MODE_Program(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters);

// Writes the current mode's timing to the adapter, the pixel clock only when `pllChanged`. FALSE at the first
// register that does not hold what was written; if that is the pixel clock's, the current mode's PLL word is
// no longer trusted: the next mode set writes it again.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN MODE_ProgramTiming(DEVICE_CONTEXT* context, BOOLEAN pllChanged)
    TSA_REQUIRES(context->Display.DropFrameCheckMutex);

// Replaces the timings in which the mode table differs from CEA-861: an HDMI sink may insist on them.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_ApplyHdmiTiming(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DropFrameCheckMutex);

// Forgets the current mode and its pixel clock: the next mode set programs everything. Takes
// DropFrameCheckMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_Forget(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex);

// Before a sleep: a transmitter loses its registers over it, so the mode counts as none and the next mode set
// programs everything again. The size is kept in WidthBeforeSleep and HeightBeforeSleep. Takes
// DropFrameCheckMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_ForgetForSleep(DEVICE_CONTEXT* context);

// An adapter that lost power has lost its timing: writes it again if the pixel clock is not the mode's. Under
// MonitorMutex no detach forgets the mode and stops the clock meanwhile. Takes DropFrameCheckMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_RestoreTiming(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Control.MonitorMutex);
