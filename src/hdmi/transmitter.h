// The external HDMI transmitter on the adapter's I2C bus: identification, reset and power.
//
// Every operation takes SerialMasterMutex for its whole sequence, because the transmitter has one bank
// selection and a byte write is a read and a write of its group of four registers. They block for
// 10 to 32 ms per register. TRUE on success, FALSE at the first failed transfer.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

// Whether a transmitter answers with the expected identification. A failed read means that there is none.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_IsPresent(DEVICE_CONTEXT* context);

// Resets the transmitter and waits at least 300 ms, after which it answers again. It has to be programmed for
// the mode then.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_Reset(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// Looks for a transmitter and updates HdmiTransmitterPresent; one that is found and not powered is reset and
// powered up. One that does not answer counts as not powered, so that this happens when it answers again.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_Detect(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// After power-up of the adapter: reset, and the order of the video input's bits. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_SetUp(DEVICE_CONTEXT* context);

// Write the power tables. HdmiTransmitterPowered is set after the last write of a power-up. It is cleared
// before the first write of a power-down: a transmitter that took only a part of it needs the whole power-up.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_PowerUp(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_PowerDown(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex);

// The mode's size changes, so the transmitter has to be programmed for it. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_ForgetMode(DEVICE_CONTEXT* context);

// Powers down a transmitter that is present and powered. Takes DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_PowerDownIfPowered(DEVICE_CONTEXT* context);

// Sets bit `bit` (0 to 7) of a register.
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN HDMI_SetBit(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR bit);
