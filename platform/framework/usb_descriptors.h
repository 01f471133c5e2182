// Interfaces, settings and endpoints of a configuration descriptor.
#pragma once

#include <usbspec.h>

#include <cstdint>
#include <optional>
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

// The descriptor comes from the device and is not trusted. Nothing when it contradicts itself: lengths that
// do not add up, settings out of order, an endpoint count or interface count that is not met.
std::optional<std::vector<InterfaceLayout>> parseConfiguration(std::span<const std::uint8_t> bytes);

} // namespace framework
