// What the driver can learn about the machine it runs on.
#pragma once

#include <ntddk.h>

#include <cstdint>

namespace kernel {

struct SystemInformation {
    ULONG osMajor = 10;
    ULONG osMinor = 0;
    ULONG osBuild = 19045;
    bool osVersionQueryFails = false;
    std::uint32_t cpuidLeaf1EcxMask = 0xFFFFFFFF; // processor features that the driver may see
};

// Set before the driver is loaded, constant from then on.
void setSystemInformation(const SystemInformation& information);

} // namespace kernel
