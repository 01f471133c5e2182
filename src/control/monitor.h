// Attach and detach of the monitor, as the adapter's status register reports them.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// While reports are ignored, the status work item drops what it read: from hardware preparation or D0 exit
// until D0 entry has checked the monitor.
_IRQL_requires_max_(DISPATCH_LEVEL)
void MONITOR_IgnoreReports(DEVICE_CONTEXT* context);
_IRQL_requires_max_(DISPATCH_LEVEL)
void MONITOR_AcceptReports(DEVICE_CONTEXT* context);

// At hardware preparation: no monitor is attached.
_IRQL_requires_max_(DISPATCH_LEVEL)
void MONITOR_Reset(DEVICE_CONTEXT* context);

// Reads the status register once and acts on it; the status work item waits meanwhile. Takes MonitorMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_CheckAtD0Entry(DEVICE_CONTEXT* context);

// Act on a status word. MONITOR_OnStatus serves chips that report events and does nothing when the monitor's
// state is as before; MONITOR_CheckStatus serves the others.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_OnStatus(DEVICE_CONTEXT* context, ULONG status) TSA_REQUIRES(context->Control.MonitorMutex);
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_CheckStatus(DEVICE_CONTEXT* context, ULONG status) TSA_REQUIRES(context->Control.MonitorMutex);

// Attach enables the device interface. Before that it reads the EDID (a second or more) if `readEdid` says
// that there is one, or if there is a transmitter. Detach disables the interface and stops the stream.
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_Attach(DEVICE_CONTEXT* context, BOOLEAN readEdid) TSA_REQUIRES(context->Control.MonitorMutex);
_IRQL_requires_(PASSIVE_LEVEL)
void MONITOR_Detach(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Control.MonitorMutex);
