// The adapter's video output: on while a stream runs. Every function takes DisplayStateMutex.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Turns the adapter's video output off if it is on, which blocks for two register transfers.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_DisableOutput(DEVICE_CONTEXT* context);

// Bookkeeping without a register access: the first frame turns the output on by itself, and a display that is
// switched off during a sleep has its output off after the wake-up.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_MarkOutput(DEVICE_CONTEXT* context, BOOLEAN active);

_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN MODE_IsOutputActive(DEVICE_CONTEXT* context);
