// The adapter as a USB device: target, identity, configuration and pipes.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>
#include <wdf.h>
#include <wdfusb.h>

// Hardware preparation: USB_CreateTarget ends with USB_RetrieveConfigDescriptor, and that with
// USB_SelectConfiguration. Each returns the first failure. They block for USB transfers.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS USB_CreateTarget(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS USB_RetrieveConfigDescriptor(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS USB_SelectConfiguration(DEVICE_CONTEXT* context);

// Deletes what register transfers use; later transfers fail. For hardware release.
_IRQL_requires_(PASSIVE_LEVEL)
void USB_DeleteControlRequest(DEVICE_CONTEXT* context);

constexpr ULONG USB_DIRECTION_IN = 0;
constexpr ULONG USB_DIRECTION_OUT = 1;

// The first configured pipe of that type and direction, or null.
_IRQL_requires_max_(DISPATCH_LEVEL)
WDFUSBPIPE USB_FindPipe(WDFUSBINTERFACE usbInterface, WDF_USB_PIPE_TYPE type, ULONG direction);

// Has an interface in alternate setting 0. Part of timing programming, while the pipeline is stopped. The
// framework sends nothing when the interface has that setting, as it always has after a successful selection:
// pipes and handles stay, and so does a halt. After a failure there is no bulk pipe until the next success.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS USB_SelectAlternateSetting(DEVICE_CONTEXT* context, WDFUSBINTERFACE usbInterface)
    TSA_REQUIRES(context->Display.DropFrameCheckMutex);

// Looks up BulkOutPipe and its handle again. Part of timing programming, while the pipeline is stopped.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS USB_ConfigurePipes(DEVICE_CONTEXT* context)
    TSA_REQUIRES(context->Display.DropFrameCheckMutex);
