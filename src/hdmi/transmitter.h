// The external HDMI transmitter on the adapter's I2C bus: identification, reset and power.
//
// Every operation takes SerialMasterMutex for its whole sequence, because the transmitter has one bank
// selection and a byte write is a read and a write of its group of four registers. PASSIVE_LEVEL; they block
// for milliseconds per register. TRUE on success, FALSE at the first failed transfer.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

constexpr UCHAR HDMI_I2C_ADDRESS = 0x4C;

// Whether a transmitter answers with the expected identification. A failed read means that there is none.
[[nodiscard]] BOOLEAN HDMI_IsPresent(DEVICE_CONTEXT* context);

// Resets the transmitter and waits for it to come back.
BOOLEAN HDMI_Reset(DEVICE_CONTEXT* context);

// Runs the power tables and keeps HdmiTransmitterPowered. The caller holds DisplayStateMutex.
BOOLEAN HDMI_PowerUp(DEVICE_CONTEXT* context);
BOOLEAN HDMI_PowerDown(DEVICE_CONTEXT* context);

// Sets bit `bit` (0 to 7) of a register.
BOOLEAN HDMI_SetBit(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR bit);
