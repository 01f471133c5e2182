// The life of the frame update thread, which converts frames and switches the output format. It ends with
// RENDER_Shutdown (render/start_stop.h) or when the device is given up (render/send.h).
#pragma once

#include "device/device_context.h"

// Resets the thread's events and starts it. A thread whose object cannot be referenced is ended again.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS THREAD_CreateFrameUpdateThread(DEVICE_CONTEXT* context);

// The start context is a THREAD_START_CONTEXT.
_IRQL_requires_(PASSIVE_LEVEL)
KSTART_ROUTINE THREAD_FrameUpdateProcess;
