// Processor features that choose between the vector form and the pixel-by-pixel form of a routine.
#pragma once

#include <ntddk.h>

// Set once at device add, from CPUID leaf 1.
struct CPU_FEATURES {
    ULONG CpuInfo[4]; // EAX, EBX, ECX, EDX
    BOOLEAN CpuHasSsse3;
    BOOLEAN CpuHasSse41;
    BOOLEAN CpuHasSse42;
};
