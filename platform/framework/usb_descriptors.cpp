#include "platform/framework/usb_descriptors.h"

#include <algorithm>
#include <cstring>

namespace framework {

namespace {

template <typename T>
T read(std::span<const std::uint8_t> bytes) {
    T value;
    std::memcpy(&value, bytes.data(), sizeof(T));
    return value;
}

InterfaceLayout& interfaceOf(std::vector<InterfaceLayout>& interfaces, std::uint8_t number) {
    for (InterfaceLayout& layout : interfaces) {
        if (layout.settings.front().descriptor.bInterfaceNumber == number) {
            return layout;
        }
    }
    return interfaces.emplace_back();
}

// False when a setting has fewer endpoints than it announces; those beyond are not used.
bool takeAnnouncedEndpoints(InterfaceLayout& layout) {
    for (SettingLayout& setting : layout.settings) {
        if (setting.endpoints.size() < setting.descriptor.bNumEndpoints) {
            return false;
        }
        setting.endpoints.resize(setting.descriptor.bNumEndpoints);
    }
    return true;
}

} // namespace

NTSTATUS parseConfiguration(std::span<const std::uint8_t> bytes, std::vector<InterfaceLayout>& interfaces) {
    if (bytes.size() < sizeof(USB_CONFIGURATION_DESCRIPTOR)) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto header = read<USB_CONFIGURATION_DESCRIPTOR>(bytes);
    if (header.bLength < sizeof(header) || header.bDescriptorType != USB_CONFIGURATION_DESCRIPTOR_TYPE ||
        header.wTotalLength != bytes.size()) {
        return STATUS_INVALID_PARAMETER;
    }
    std::size_t current = 0; // the interface whose setting takes the endpoints that follow
    for (auto rest = bytes; !rest.empty();) {
        if (rest.size() < sizeof(USB_COMMON_DESCRIPTOR)) {
            return STATUS_INVALID_PARAMETER;
        }
        const auto common = read<USB_COMMON_DESCRIPTOR>(rest);
        if (common.bLength < sizeof(common) || common.bLength > rest.size()) {
            return STATUS_INVALID_PARAMETER;
        }
        if (common.bDescriptorType == USB_INTERFACE_DESCRIPTOR_TYPE) {
            if (common.bLength < sizeof(USB_INTERFACE_DESCRIPTOR)) {
                return STATUS_INVALID_PARAMETER;
            }
            const auto descriptor = read<USB_INTERFACE_DESCRIPTOR>(rest);
            InterfaceLayout& layout = interfaceOf(interfaces, descriptor.bInterfaceNumber);
            if (descriptor.bAlternateSetting != layout.settings.size()) {
                return STATUS_INVALID_DEVICE_REQUEST;
            }
            layout.settings.push_back({descriptor, {}});
            current = static_cast<std::size_t>(&layout - interfaces.data());
        } else if (common.bDescriptorType == USB_ENDPOINT_DESCRIPTOR_TYPE) {
            if (common.bLength < sizeof(USB_ENDPOINT_DESCRIPTOR) || interfaces.empty()) {
                return STATUS_INVALID_PARAMETER;
            }
            interfaces[current].settings.back().endpoints.push_back(read<USB_ENDPOINT_DESCRIPTOR>(rest));
        }
        rest = rest.subspan(common.bLength);
    }
    return interfaces.size() <= header.bNumInterfaces &&
                   std::all_of(interfaces.begin(), interfaces.end(), takeAnnouncedEndpoints)
               ? STATUS_SUCCESS
               : STATUS_INVALID_PARAMETER;
}

} // namespace framework
