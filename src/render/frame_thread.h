// The life of the frame update thread, which converts frames and switches the output format. It ends with
// RENDER_Shutdown (render/start_stop.h) or when the device is given up (render/send.h).
#pragma once

#include "device/device_context.h"

// Starts the thread; its events are as at device add. A thread that cannot be waited for is ended again.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS THREAD_CreateFrameUpdateThread(DEVICE_CONTEXT* context);

KSTART_ROUTINE THREAD_FrameUpdateProcess; // start context: THREAD_START_CONTEXT; PASSIVE_LEVEL
