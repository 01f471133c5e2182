// From driver load to a device object with its context.
#pragma once

#include <ntddk.h>
#include <wdf.h>

extern "C" DRIVER_INITIALIZE DriverEntry;
EVT_WDF_OBJECT_CONTEXT_CLEANUP DRIVER_EvtCleanup;

EVT_WDF_DRIVER_DEVICE_ADD DEVICE_EvtDeviceAdd;
EVT_WDF_DEVICE_FILE_CREATE DEVICE_EvtFileCreate;
EVT_WDF_FILE_CLEANUP DEVICE_EvtFileCleanup;
