// Access to the adapter's registers: vendor control transfers of one 32-bit word each, one at a time.
//
// Each transfer blocks for a round trip on the bus, at most two seconds. RegisterMutex is taken inside and is
// the innermost lock. A read-modify-write is two transfers: a caller that needs the pair to be one step holds
// a mutex that comes before RegisterMutex. After a surprise removal every function fails without a transfer.
#pragma once

#include "base/annotations.h"
#include "usb/register_map.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// One transfer. `isRead` non-zero reads into *value, zero writes *value. `offset`: its low 16 bits.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS REG_Transfer(DEVICE_CONTEXT* context, ULONG isRead, ULONG offset,
                                    _Inout_ ULONG* value);

// TRUE when the transfer succeeded. A failed read leaves 0 in *value.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN REG_Read(DEVICE_CONTEXT* context, ULONG offset, _Out_ ULONG* value);
_IRQL_requires_(PASSIVE_LEVEL)
BOOLEAN REG_Write(DEVICE_CONTEXT* context, ULONG offset, const ULONG* value);

// Read, modify, write; nothing happens when the read fails. `bit` is taken modulo 32.
_IRQL_requires_(PASSIVE_LEVEL)
void REG_SetBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit);
_IRQL_requires_(PASSIVE_LEVEL)
void REG_ClearBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit);
_IRQL_requires_(PASSIVE_LEVEL)
void REG_SetMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask);
_IRQL_requires_(PASSIVE_LEVEL)
void REG_ClearMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask);
