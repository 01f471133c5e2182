// Access to the adapter's registers: vendor control transfers of one 32-bit word each, one at a time.
//
// All at PASSIVE_LEVEL; they block for a round trip on the bus, at most two seconds. RegisterMutex is taken
// inside and is always the innermost lock. A read-modify-write is two transfers: whoever needs the pair to be
// one step holds a mutex of a higher level. After a surprise removal everything fails without touching the
// bus.
#pragma once

#include "usb/register_map.h"

struct DEVICE_CONTEXT;

// One transfer. `isRead` non-zero reads into *value, zero writes *value. `offset`: its low 16 bits.
[[nodiscard]] NTSTATUS REG_Transfer(DEVICE_CONTEXT* context, ULONG isRead, ULONG offset, ULONG* value);

// TRUE when the transfer succeeded. A failed read leaves 0 in *value.
[[nodiscard]] BOOLEAN REG_Read(DEVICE_CONTEXT* context, ULONG offset, ULONG* value);
BOOLEAN REG_Write(DEVICE_CONTEXT* context, ULONG offset, const ULONG* value);

// Read, modify, write; nothing happens when the read fails. `bit` is taken modulo 32.
void REG_SetBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit);
void REG_ClearBit(DEVICE_CONTEXT* context, ULONG offset, ULONG bit);
void REG_SetMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask);
void REG_ClearMask(DEVICE_CONTEXT* context, ULONG offset, ULONG mask);
