// The one I/O control: client and driver hand each other their entry points, and a second client is refused.
#pragma once

#include <ntddk.h>
#include <wdf.h>

EVT_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL CLIENT_EvtIoInternalDeviceControl;
