// Programming of the adapter's memories from binary images in the registry.
//
// Each programmer reads its image, writes it word by word and verifies every word; whatever fails ends it
// silently, and bring-up goes on. They take SerialMasterMutex for the whole programming and block for
// milliseconds per word. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

void EEPROM_ProgramFromRegistry(DEVICE_CONTEXT* context); // "EepromData"
void SPI_ProgramFromRegistry(DEVICE_CONTEXT* context);    // "SpiData"
