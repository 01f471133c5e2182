// The adapter's video output: on while a stream runs.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// Turns the adapter's video output off if it is on. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_DisableOutput(DEVICE_CONTEXT* context);

// Bookkeeping without a register access: the first frame turns the output on by itself, and a display that is
// switched off during a sleep wakes with its output off. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void MODE_MarkOutput(DEVICE_CONTEXT* context, BOOLEAN active);

// Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN MODE_IsOutputActive(DEVICE_CONTEXT* context);
