// The edges of D0, suspension of the status pipe, and removal. All at PASSIVE_LEVEL, serialised by the
// framework except for surprise removal, which may come at any moment.
#pragma once

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

EVT_WDF_DEVICE_D0_ENTRY DEVICE_EvtD0Entry;
EVT_WDF_DEVICE_D0_EXIT DEVICE_EvtD0Exit;
EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND DEVICE_EvtSelfManagedIoSuspend;
EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART DEVICE_EvtSelfManagedIoRestart;
EVT_WDF_DEVICE_SURPRISE_REMOVAL DEVICE_EvtSurpriseRemoval;
EVT_WDFDEVICE_WDM_IRP_PREPROCESS DEVICE_PreprocessPnpIrp;

// Returns when no client holds the interface, or after about ten seconds.
void DEVICE_WaitForClientRelease(DEVICE_CONTEXT* context);
