// How many adapters are prepared: "CurrentNumberOfDevices" in the registry and this device's copy of it in
// the settings. Each device counts on its own copy; the registry holds the number written last.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Sets the registry's number to 0. At driver load: a count left by a system that stopped without releasing
// its adapters would turn compression on.
_IRQL_requires_(PASSIVE_LEVEL)
void DEVICECOUNT_Clear();

_IRQL_requires_(PASSIVE_LEVEL)
void DEVICECOUNT_Add(DEVICE_CONTEXT* context);

// Never below 0.
_IRQL_requires_(PASSIVE_LEVEL)
void DEVICECOUNT_Remove(DEVICE_CONTEXT* context);

// Reads the registry's number and returns it; without a value there, this device's copy.
_IRQL_requires_(PASSIVE_LEVEL)
ULONG DEVICECOUNT_Refresh(DEVICE_CONTEXT* context);
