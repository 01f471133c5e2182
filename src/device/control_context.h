// The monitor, as the adapter's status reports describe it, and what mode setting remembers. Written by
// control/.
#pragma once

#include "base/lock.h"
#include "device/monitor_edid.h"

#include <ntddk.h>
#include <wdf.h>
#include <wdfusb.h>

struct CONTROL_CONTEXT {
    WDFUSBPIPE InterruptPipe; // set at hardware preparation, null without a status pipe

    // Acquired for each work item of a report until it ends; the stop of the pipe waits for it.
    EX_RUNDOWN_REF StatusWork;

    // Set from hardware preparation or D0 exit until D0 entry has checked the monitor: the status work item
    // then drops what it read (shared field).
    BOOLEAN IgnoreInterruptStatus;

    // Set at hardware preparation.
    DEVICE_OBJECT* PhysicalDeviceObject;

    // Held while the monitor's state changes, EDID reads included: a second or more.
    DEVICE_MUTEX MonitorMutex;
    UNICODE_STRING InterfaceSymbolicLinkName TSA_GUARDED_BY(MonitorMutex); // length 0: not registered
    MONITOR_EDID Edid TSA_GUARDED_BY(MonitorMutex);

    // Written under MonitorMutex, and at hardware preparation, before reports are accepted; read elsewhere
    // without it (shared fields).
    BOOLEAN MonitorConnected;
    BOOLEAN MonitorIsDvi;
};
