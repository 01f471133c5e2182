// The external HDMI transmitter on the adapter's I2C bus: identification, reset and power.
//
// Every operation takes SerialMasterMutex for its whole sequence, because the transmitter has one bank
// selection and a byte write is a read and a write of its group of four registers. PASSIVE_LEVEL; they block
// for milliseconds per register. TRUE on success, FALSE at the first failed transfer.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Whether a transmitter answers with the expected identification. A failed read means that there is none.
[[nodiscard]] BOOLEAN HDMI_IsPresent(DEVICE_CONTEXT* context);

// Resets the transmitter and waits for it to come back.
BOOLEAN HDMI_Reset(DEVICE_CONTEXT* context);

// Looks for a transmitter and keeps HdmiTransmitterPresent; one that is found and not powered is reset and
// powered up.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_Detect(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// After power-up of the adapter: reset, and the order of the video input's bits.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_SetUp(DEVICE_CONTEXT* context);

// Runs the power tables and keeps HdmiTransmitterPowered.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_PowerUp(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_PowerDown(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// The same for one that is present and powered; nothing happens to any other. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_PowerDownIfPowered(DEVICE_CONTEXT* context);

// Sets bit `bit` (0 to 7) of a register.
BOOLEAN HDMI_SetBit(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR bit);
