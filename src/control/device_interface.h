// The device interface by which the client finds the adapter: registered from hardware preparation to
// release, enabled while a monitor is attached.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Takes MonitorMutex. On failure no interface is registered.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS INTERFACE_Register(DEVICE_CONTEXT* context);

// Disables and unregisters it; nothing happens without one. Takes MonitorMutex: a status work item that is
// still running finds either a registered interface or none.
_IRQL_requires_(PASSIVE_LEVEL)
void INTERFACE_Unregister(DEVICE_CONTEXT* context);

// Tells the client that a monitor was attached or detached.
_IRQL_requires_(PASSIVE_LEVEL)
void INTERFACE_Enable(DEVICE_CONTEXT* context, BOOLEAN enable) TSA_REQUIRES(context->Control.MonitorMutex);
