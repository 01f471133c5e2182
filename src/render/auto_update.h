// The compression level follows the size of the frames, and a frame that came out too large is sent again at
// the next level, a little later.
#pragma once

#include "device/device_context.h"

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_CreateCompressionAutoUpdateTimer(DEVICE_CONTEXT* context);

// Waits for a running callback.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_DeleteCompressionAutoUpdateTimer(DEVICE_CONTEXT* context);

EVT_WDF_TIMER RENDER_CompressionAutoUpdateTimerFunc; // PASSIVE_LEVEL

// The decision after a compressed frame of `length` bytes. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_CompressionAutoUpdate(DEVICE_CONTEXT* context, ULONGLONG length);

// A new frame makes the repetition of the last one unnecessary. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_StopAutoUpdate(DEVICE_CONTEXT* context);

// Has the newest frame converted and sent again in a while. For a frame that could not be sent while nothing
// else was in flight.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_RepeatFrameLater(DEVICE_CONTEXT* context);
