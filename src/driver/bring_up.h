// Power-up of the adapter at every D0 entry. Failures of single register accesses are passed over: what a
// dead adapter does not do shows in the steps that follow. PASSIVE_LEVEL; blocks for up to seconds.
#pragma once

struct DEVICE_CONTEXT;

// Looks for the HDMI transmitter, runs the revision's power-up and restores the display timing if the adapter
// lost it. Takes DisplayStateMutex, MonitorMutex and what they lead to, one after the other.
void CHIP_Initialize(DEVICE_CONTEXT* context);

void CHIP_InitRevision1(DEVICE_CONTEXT* context);
void CHIP_InitRevision2(DEVICE_CONTEXT* context);
void CHIP_InitRevision1Registers(DEVICE_CONTEXT* context);

// Each switches one power stage on and gives it its 750 ms to settle.
void CHIP_PowerUpStage1(DEVICE_CONTEXT* context);
void CHIP_PowerUpStage2(DEVICE_CONTEXT* context);

// The inverse of both, before the device sleeps.
void CHIP_PowerDownStages(DEVICE_CONTEXT* context);
