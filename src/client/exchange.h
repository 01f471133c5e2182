// The only I/O control of the driver: client and driver exchange their entry points. A second client is
// refused.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <wdf.h>

_IRQL_requires_max_(DISPATCH_LEVEL)
EVT_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL CLIENT_EvtIoInternalDeviceControl;
