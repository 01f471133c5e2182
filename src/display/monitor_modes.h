// The list of modes that a monitor offers and the adapter can drive.
#pragma once

#include "device/monitor_edid.h"

#include <ntddk.h>

// Lists a mode unless it is already listed or too large, or the list is full. A pure function; any IRQL.
void MONITOR_AddMode(MONITOR_EDID* edid, ULONG width, ULONG height, ULONG refresh);
