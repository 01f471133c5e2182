// The adapter as a USB device: target, identity, configuration and pipes.
#pragma once

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>
#include <wdf.h>
#include <wdfusb.h>

struct DEVICE_CONTEXT;

// Hardware preparation. Each step ends with the next one and returns the first failure. PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS USB_CreateTarget(DEVICE_CONTEXT* context);
[[nodiscard]] NTSTATUS USB_RetrieveConfigDescriptor(DEVICE_CONTEXT* context);
[[nodiscard]] NTSTATUS USB_SelectConfiguration(DEVICE_CONTEXT* context);

// Deletes what register transfers use; later transfers fail. For hardware release.
void USB_DeleteControlRequest(DEVICE_CONTEXT* context);

constexpr ULONG USB_DIRECTION_IN = 0;
constexpr ULONG USB_DIRECTION_OUT = 1;

// The first configured pipe of that type and direction, or null.
WDFUSBPIPE USB_FindPipe(WDFUSBINTERFACE usbInterface, WDF_USB_PIPE_TYPE type, ULONG direction);

// Timing programming, while the pipeline is stopped; the caller holds DropFrameCheckMutex.
[[nodiscard]] NTSTATUS USB_SelectAlternateSetting(DEVICE_CONTEXT* context, WDFUSBINTERFACE usbInterface);
[[nodiscard]] NTSTATUS USB_ConfigurePipes(DEVICE_CONTEXT* context); // BulkOutPipe and its handle
