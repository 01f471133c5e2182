// Values under the driver's Parameters key. Every access opens and closes the key.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

// On failure *value is unchanged.
_IRQL_requires_(PASSIVE_LEVEL)
NTSTATUS REGISTRY_QueryULong(PCWSTR name, ULONG* value);

_IRQL_requires_(PASSIVE_LEVEL)
NTSTATUS REGISTRY_AssignULong(PCWSTR name, ULONG value);

_IRQL_requires_(PASSIVE_LEVEL)
NTSTATUS REGISTRY_QueryBinary(PCWSTR name, ULONG bufferLength, VOID* buffer, ULONG* length);
