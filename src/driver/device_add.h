// From driver load to a device object with its context.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <wdf.h>

extern "C" DRIVER_INITIALIZE DriverEntry;
_IRQL_requires_max_(DISPATCH_LEVEL)
EVT_WDF_OBJECT_CONTEXT_CLEANUP DRIVER_EvtCleanup;

_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DRIVER_DEVICE_ADD DEVICE_EvtDeviceAdd;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_FILE_CREATE DEVICE_EvtFileCreate;
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_FILE_CLEANUP DEVICE_EvtFileCleanup;
