// The adapter's serial master: 32-bit words to and from I2C devices and the SPI flash.
//
// All at PASSIVE_LEVEL; a transaction blocks for 3 to 105 ms. They take no lock: the caller holds
// SerialMasterMutex for its whole procedure. Every failure is STATUS_UNSUCCESSFUL; a failed read leaves 0.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS I2C_ReadDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                     ULONG* result) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS I2C_WriteDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset,
                                      const ULONG* value) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// `address`: bits 0 to 14. `isFirstWrite` (bit 0) is 1 for the first word of a programming run.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS SPI_ReadDword(DEVICE_CONTEXT* context, ULONG address, ULONG* result)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS SPI_WriteDword(DEVICE_CONTEXT* context, ULONG address, const ULONG* value,
                                      UCHAR isFirstWrite) TSA_REQUIRES(context->Usb.SerialMasterMutex);
