// What exists from hardware preparation to hardware release: USB target, status pipe, render pipeline and the
// device interface (registered here, enabled while a monitor is attached).
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <wdf.h>

// Fails with the status of the step that failed; what was built until then is undone by the release, which
// the framework calls in that case too.
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_PREPARE_HARDWARE DEVICE_EvtPrepareHardware;

// Works on a partly prepared device. Always STATUS_SUCCESS.
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_DEVICE_RELEASE_HARDWARE DEVICE_EvtReleaseHardware;
