// Processor features that choose between the vector form and the pixel-by-pixel form of a routine.
#pragma once

#include <ntddk.h>

struct CPU_FEATURES {
    BOOLEAN CpuHasSsse3;
    BOOLEAN CpuHasSse41;
};

// From CPUID leaf 1. Any IRQL.
CPU_FEATURES CPU_DetectFeatures();
