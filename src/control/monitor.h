// The monitor comes and goes.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// While reports are ignored, the status work item drops what it read. From the begin of D0 exit to the end of
// D0 entry, and while hardware is prepared. A report that is being acted on finishes first for a caller that
// then takes MonitorMutex.
void MONITOR_IgnoreReports(DEVICE_CONTEXT* context);
void MONITOR_AcceptReports(DEVICE_CONTEXT* context);

// At hardware preparation: no monitor is attached.
void MONITOR_Reset(DEVICE_CONTEXT* context);

// Reads the status register once and acts on it; the status work item waits meanwhile. Takes MonitorMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_CheckAtD0Entry(DEVICE_CONTEXT* context);

// Act on a status word. OnStatus serves chips that report events, where attach while attached and detach
// while detached do nothing; CheckStatus serves the others. Take MonitorMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_OnStatus(DEVICE_CONTEXT* context, ULONG status);
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_CheckStatus(DEVICE_CONTEXT* context, ULONG status);

// Attach reads the EDID (a second or more) when `readEdid` says that the adapter has one, and enables the
// device interface in any case; detach disables it and stops the stream.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_Attach(DEVICE_CONTEXT* context, BOOLEAN readEdid) TSA_REQUIRES(context->Control.MonitorMutex);
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_Detach(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Control.MonitorMutex);
