// Adapts the compression level to the size of the frames. A frame that came out too large is sent again a
// little later, converted anew when the level could be raised.
#pragma once

#include "device/device_context.h"

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS RENDER_CreateCompressionAutoUpdateTimer(DEVICE_CONTEXT* context);

// Waits for a running callback.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_DeleteCompressionAutoUpdateTimer(DEVICE_CONTEXT* context);

_IRQL_requires_(PASSIVE_LEVEL)
EVT_WDF_TIMER RENDER_CompressionAutoUpdateTimerFunc;

// Chooses the level of the next frame after a compressed frame of `length` bytes. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_CompressionAutoUpdate(DEVICE_CONTEXT* context, ULONGLONG length);

// A new frame makes the repetition of the last one unnecessary. On the frame update thread.
_IRQL_requires_(PASSIVE_LEVEL)
void RENDER_StopAutoUpdate(DEVICE_CONTEXT* context);

// Has the newest frame converted and sent again after 100 ms. For a frame that could not be sent while
// nothing else was in flight.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_RepeatFrameLater(DEVICE_CONTEXT* context);
