// Power-up of the adapter at every D0 entry, and power-down before a sleep. Blocks for up to several seconds.
// A failed register access is ignored: on an adapter that does not answer, the next mode set fails.
#pragma once

#include "base/annotations.h"

struct DEVICE_CONTEXT;

// Looks for the HDMI transmitter, powers the chip up as its revision needs it and restores the display timing
// if the adapter lost it. Takes DisplayStateMutex and MonitorMutex, one after the other.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_Initialize(DEVICE_CONTEXT* context);

_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_InitRevision1(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_InitRevision2(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_InitRevision1Registers(DEVICE_CONTEXT* context);

// Each switches one power stage on and waits at least 750 ms for it to settle.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_PowerUpStage1(DEVICE_CONTEXT* context);
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_PowerUpStage2(DEVICE_CONTEXT* context);

// Switches both stages off.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_PowerDownStages(DEVICE_CONTEXT* context);
