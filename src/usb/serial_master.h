// The adapter's serial master: 32-bit words to and from I2C devices and the SPI flash.
//
// A transaction blocks for 3 to 6 ms when the clock ticks every millisecond and for 16 ms at its usual tick
// of 15.6 ms; one that never completes, for 116 or 172 ms. The caller holds SerialMasterMutex over all
// transactions that belong together, and not for each alone. Every failure is STATUS_UNSUCCESSFUL; a failed
// read leaves 0. While the device is being removed, every transaction fails at once.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS I2C_ReadDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                     _Out_ ULONG* result) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS I2C_WriteDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                      const ULONG* value) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// `address`: bits 0 to 14. `isFirstWrite` (bit 0) is 1 for the first word of a programming run.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS SPI_ReadDword(DEVICE_CONTEXT* context, ULONG address, _Out_ ULONG* result)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS SPI_WriteDword(DEVICE_CONTEXT* context, ULONG address, const ULONG* value,
                                      UCHAR isFirstWrite) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// Sets or clears a power stage's bit. It shares its register with the serial master's command: the write
// would start a transaction again that was in progress at the read.
_IRQL_requires_(PASSIVE_LEVEL)
void SERIAL_SwitchPowerStage(DEVICE_CONTEXT* context, ULONG bit, BOOLEAN on)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
