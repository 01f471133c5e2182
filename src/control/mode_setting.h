// From "switch the display on" to a running stream. Blocks for up to several seconds.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

struct MODE_REQUEST {
    ULONG Width;
    ULONG Height;
    ULONG Refresh;             // Hz; anything but 50 and 60 is replaced by 60, in the request, too
    ULONG SourceBytesPerPixel; // of the client's frames
    ULONG OutputColorMode;     // OUTPUT_COLOR_MODE, before the transfer policy
    ULONG CompressionEnabled;  // not 0: the mode is programmed but the stream is not started
    ULONG Unused;
    ULONG TransferScheme; // 0: bulk
};
static_assert(sizeof(MODE_REQUEST) == 32);

// Stops the stream, programs the mode and starts the stream again. On failure the stream stays stopped and
// the monitor dark until the next mode set that succeeds. Takes RenderStartStopMutex for the whole change.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS MODE_SetMode(DEVICE_CONTEXT* context, _Inout_ MODE_REQUEST* request);

// The same with a request for the client's frames of that size: 60 Hz, 4 bytes a pixel, 24-bit output.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS MODE_SetDesktopMode(DEVICE_CONTEXT* context, ULONG width, ULONG height);

// After a sleep: a stream that RENDER_Suspend paused continues in its mode. The mode is set again when it was
// forgotten for the sleep, or for a transmitter that did not answer before it. The adapter is in D0.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_Resume(DEVICE_CONTEXT* context);

// Chooses bytes per pixel and compression by link speed and settings. `severalDevices` becomes TRUE when
// their number alone made the frames compressed. Changes `parameters` only, and this device's copy of
// CurrentNumberOfDevices.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_ApplyTransferPolicy(DEVICE_CONTEXT* context, _Inout_ MODE_PARAMETERS* parameters,
                              _Out_ BOOLEAN* severalDevices);

// Powers an HDMI transmitter up and programs it when `modeChanged`. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_UpdateHdmi(DEVICE_CONTEXT* context, BOOLEAN modeChanged)
    TSA_REQUIRES(context->Render.RenderStartStopMutex);
