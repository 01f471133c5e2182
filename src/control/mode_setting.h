// From "switch the display on" to a running stream. PASSIVE_LEVEL; blocks for up to seconds.
#pragma once

#include "device/mode_parameters.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

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
[[nodiscard]] NTSTATUS MODE_SetMode(DEVICE_CONTEXT* context, MODE_REQUEST* request);

// The same with a request for the client's frames of that size: 60 Hz, 4 bytes a pixel, 24-bit output.
[[nodiscard]] NTSTATUS MODE_SetDesktopMode(DEVICE_CONTEXT* context, ULONG width, ULONG height);

// A transmitter loses its programme over a sleep: the mode counts as none, so that the next mode set programs
// everything again.
void MODE_ForgetForSleep(DEVICE_CONTEXT* context);

// After a sleep: a stream that RENDER_Suspend paused goes on, in the mode it had. Where that mode was
// forgotten, it is set anew. The adapter is in D0.
void MODE_Resume(DEVICE_CONTEXT* context);

// Turns the adapter's video output off if it is on. Takes DisplayStateMutex.
void MODE_DisableOutput(DEVICE_CONTEXT* context);

// Chooses bytes per pixel and compression by link speed and settings. `severalDevices` becomes TRUE when
// their number alone made the frames compressed. Changes `parameters` only, and this device's copy of
// CurrentNumberOfDevices.
void MODE_ApplyTransferPolicy(DEVICE_CONTEXT* context, MODE_PARAMETERS* parameters, BOOLEAN* severalDevices);

// Powers an HDMI transmitter up and programs it when `modeChanged`. The caller holds RenderStartStopMutex;
// takes DisplayStateMutex.
void MODE_UpdateHdmi(DEVICE_CONTEXT* context, BOOLEAN modeChanged);
