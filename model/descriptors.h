// The adapter's descriptors (USB 2.0 chapter 9, USB 3.2 chapter 9).
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/usb/device.h"

namespace model {

enum class Product : std::uint8_t { Main, Alt, Partner };

struct Identity {
    std::uint16_t idVendor = 0;
    std::uint16_t idProduct = 0;
    std::uint16_t bcdDevice = 0;
};

// Revision 1 and 3 exist as `Main` only, revision 2 as every product; revision 0 is any product with a
// bcdDevice before 1.00. Throws std::invalid_argument for other combinations.
Identity identityOf(unsigned revision, Product product);

constexpr std::uint8_t kStreamingInterface = 1;
constexpr std::uint8_t kStatusInterface = 2;
constexpr std::uint8_t kInterfaceCount = 3;
constexpr std::uint8_t kBulkOutEndpoint = 0x02;
constexpr std::uint8_t kInterruptInEndpoint = 0x83;

std::uint16_t defaultBcdUsb(usb::Speed link);

std::vector<std::uint8_t> deviceDescriptor(const Identity& identity, std::uint16_t bcdUsb, usb::Speed link);
std::vector<std::uint8_t> configurationDescriptor(usb::Speed link);
std::vector<std::uint8_t> bosDescriptor(usb::Speed link);
// Index 0: the language list; 1: product; 2: serial number. Empty for any other.
std::vector<std::uint8_t> stringDescriptor(std::uint8_t index, Product product);

} // namespace model
