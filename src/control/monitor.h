// The monitor comes and goes. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Reads the status register once and acts on it; the status work item stays out meanwhile.
void MONITOR_CheckAtD0Entry(DEVICE_CONTEXT* context);

// Act on a status word. OnStatus is revision 2's, where attach while attached and detach while detached do
// nothing; CheckStatus is that of the other revisions. Take MonitorMutex.
void MONITOR_OnStatus(DEVICE_CONTEXT* context, ULONG status);
void MONITOR_CheckStatus(DEVICE_CONTEXT* context, ULONG status);

// The caller holds MonitorMutex. Attach reads the EDID (a second or more) when `readEdid` says that the
// adapter has one, and switches the device interface on in any case; detach switches it off and stops the
// stream.
void MONITOR_Attach(DEVICE_CONTEXT* context, BOOLEAN readEdid);
void MONITOR_Detach(DEVICE_CONTEXT* context);
