// The interrupt pipe on which the adapter reports attached and detached monitors and dropped frames, and the
// work items that act on the reports.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <wdf.h>
#include <wdfusb.h>

struct DEVICE_CONTEXT;

// From hardware preparation to release, serialized by the framework. Not for chips without a status pipe.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS INT_StartStatusPipe(DEVICE_CONTEXT* context);

// Cancels the pending read and waits until the work items of earlier reports have ended: no report leads to a
// register access after that. Nothing happens without a pipe. The caller holds no lock, because the work
// items take MonitorMutex and what comes after it.
_IRQL_requires_(PASSIVE_LEVEL)
void INT_StopStatusPipe(DEVICE_CONTEXT* context);

// Over a sleep: neither read nor work item is left when the device leaves D0, waited for as above. Without
// the pipe the adapter still shows frames, so a failed resume is ignored.
_IRQL_requires_(PASSIVE_LEVEL)
void INT_SuspendStatusPipe(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void INT_ResumeStatusPipe(DEVICE_CONTEXT* context);

_IRQL_requires_max_(DISPATCH_LEVEL)
EVT_WDF_USB_READER_COMPLETION_ROUTINE INT_EvtReadComplete;

_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_WORKITEM INT_EvtStatusWorkItem; // chips that report events
_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_WORKITEM INT_EvtAckWorkItem; // the others
