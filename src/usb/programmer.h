// Programming of the adapter's memories from binary images in the registry.
//
// Each programmer reads its image, writes it word by word and verifies every word; a failure ends it
// without a report, and bring-up continues. They take SerialMasterMutex for the whole programming and block
// for 8 to 32 ms per word.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

struct DEVICE_CONTEXT;

// The image "EepromData".
_IRQL_requires_(PASSIVE_LEVEL)
void EEPROM_ProgramFromRegistry(DEVICE_CONTEXT* context);

// The image "SpiData".
_IRQL_requires_(PASSIVE_LEVEL)
void SPI_ProgramFromRegistry(DEVICE_CONTEXT* context);
