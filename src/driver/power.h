// D0 entry and D0 exit, suspension of the status pipe, and removal. The framework serializes the callbacks,
// except for surprise removal, which may come at any time.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_D0_ENTRY DEVICE_EvtD0Entry;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_D0_EXIT DEVICE_EvtD0Exit;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND DEVICE_EvtSelfManagedIoSuspend;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART DEVICE_EvtSelfManagedIoRestart;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_SURPRISE_REMOVAL DEVICE_EvtSurpriseRemoval;

// Holds a removal back until the client has released the interface.
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDFDEVICE_WDM_IRP_PREPROCESS DEVICE_PreprocessPnpIrp;

// Returns when no client holds the interface, or after 10 to 16 seconds, as the clock's tick is.
_IRQL_requires_(PASSIVE_LEVEL)
void DEVICE_WaitForClientRelease(DEVICE_CONTEXT* context);
