// From driver load to a device object with its context.
#pragma once

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

extern "C" DRIVER_INITIALIZE DriverEntry;
EVT_WDF_OBJECT_CONTEXT_CLEANUP DRIVER_EvtCleanup;

EVT_WDF_DRIVER_DEVICE_ADD DEVICE_EvtDeviceAdd;
EVT_WDF_DEVICE_FILE_CREATE DEVICE_EvtFileCreate;
EVT_WDF_FILE_CLEANUP DEVICE_EvtFileCleanup;

// Parts of device add.
void DEVICE_DetectCpuFeatures(DEVICE_CONTEXT* context);
