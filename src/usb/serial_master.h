// The adapter's serial master: 32-bit words to and from I2C devices and the SPI flash, and single registers
// of the HDMI transmitter.
//
// All at PASSIVE_LEVEL; a transaction blocks for 3 to 105 ms. They take no lock: the caller holds
// SerialMasterMutex for its whole procedure. Every failure is STATUS_UNSUCCESSFUL; a failed read leaves 0.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

[[nodiscard]] NTSTATUS I2C_ReadDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                     ULONG* result);
[[nodiscard]] NTSTATUS I2C_WriteDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                      const ULONG* value);

// `address`: bits 0 to 14. `isFirstWrite` (bit 0) is 1 for the first word of a programming run.
[[nodiscard]] NTSTATUS SPI_ReadDword(DEVICE_CONTEXT* context, ULONG address, ULONG* result);
[[nodiscard]] NTSTATUS SPI_WriteDword(DEVICE_CONTEXT* context, ULONG address, const ULONG* value,
                                      UCHAR isFirstWrite);

// Registers of the HDMI transmitter. The bus moves aligned groups of four: a byte is written by reading its
// group and writing it back.
[[nodiscard]] NTSTATUS HDMI_ReadRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister,
                                         UCHAR* result); // stored on success only
UCHAR HDMI_ReadRegisterChecked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, ULONG* succeeded);
[[nodiscard]] NTSTATUS HDMI_WriteRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister,
                                          const UCHAR* value);

// Takes the bits inside `mask` from `value` and keeps the others; with mask 0xFF it does not read first.
void HDMI_ModifyRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask, UCHAR value,
                         ULONG* succeeded);
