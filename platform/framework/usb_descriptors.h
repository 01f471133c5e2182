// Interfaces, settings and endpoints of a configuration descriptor.
#pragma once

#include <ntddk.h>
#include <usbspec.h>

#include <cstdint>
#include <span>
#include <vector>

namespace framework {

struct SettingLayout {
    USB_INTERFACE_DESCRIPTOR descriptor = {};
    std::vector<USB_ENDPOINT_DESCRIPTOR> endpoints;
};

struct InterfaceLayout {
    std::vector<SettingLayout> settings; // at least one; index n is alternate setting n
};

// The descriptor comes from the device and is not trusted: STATUS_INVALID_PARAMETER for lengths that do not
// add up, too few endpoints or too many interfaces, STATUS_INVALID_DEVICE_REQUEST for settings with gaps.
// Interfaces that are missing and endpoints beyond the announced number are passed over.
NTSTATUS parseConfiguration(std::span<const std::uint8_t> bytes, std::vector<InterfaceLayout>& interfaces);

} // namespace framework
