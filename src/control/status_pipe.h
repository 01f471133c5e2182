// The interrupt pipe on which the adapter reports monitors that come and go and frames that it dropped, and
// the work items that act on the reports.
#pragma once

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <wdf.h>
#include <wdfusb.h>

struct DEVICE_CONTEXT;

// PASSIVE_LEVEL, framework-serialised. Not for adapters with NoInterruptPipe.
[[nodiscard]] NTSTATUS INT_StartStatusPipe(DEVICE_CONTEXT* context);
void INT_StopStatusPipe(DEVICE_CONTEXT* context); // cancels the pending read

EVT_WDF_USB_READER_COMPLETION_ROUTINE INT_EvtReadComplete; // up to DISPATCH_LEVEL
EVT_WDF_WORKITEM INT_EvtStatusWorkItem;                    // revision 2
EVT_WDF_WORKITEM INT_EvtAckWorkItem;                       // other revisions
