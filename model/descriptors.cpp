#include "model/descriptors.h"

#include <fmt/format.h>
#include <stdexcept>
#include <string>

namespace model {

namespace {

constexpr std::uint8_t kDeviceType = 1, kConfigurationType = 2, kStringType = 3, kInterfaceType = 4,
                       kEndpointType = 5, kBosType = 15, kCapabilityType = 16, kCompanionType = 48;
constexpr std::uint8_t kVendorClass = 0xFF;
constexpr std::uint8_t kBulk = 2, kInterrupt = 3;

// Four bytes although a report has one: hosts must not insist that a read is a multiple of the packet size.
constexpr std::uint16_t kReportPacket = 4;

void put16(std::vector<std::uint8_t>& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void putInterface(std::vector<std::uint8_t>& out, std::uint8_t number, std::uint8_t endpoints) {
    out.insert(out.end(), {9, kInterfaceType, number, 0, endpoints, kVendorClass, 0, 0, 0});
}

void putEndpoint(std::vector<std::uint8_t>& out, usb::Speed link, std::uint8_t address,
                 std::uint8_t attributes, std::uint16_t packet, std::uint8_t interval) {
    out.insert(out.end(), {7, kEndpointType, address, attributes});
    put16(out, packet);
    out.push_back(interval);
    if (link != usb::Speed::Super) {
        return;
    }
    const std::uint8_t burst = attributes == kBulk ? 15 : 0;
    out.insert(out.end(), {6, kCompanionType, burst, 0});
    put16(out, attributes == kInterrupt ? packet : 0);
}

} // namespace

Identity identityOf(unsigned revision, Product product) {
    Identity identity;
    switch (product) {
    case Product::Main:
        identity = {ADAPTER_VENDOR_ID, ADAPTER_PRODUCT_ID, 0};
        break;
    case Product::Alt:
        identity = {ADAPTER_VENDOR_ID, ADAPTER_PRODUCT_ID - 2, 0};
        break;
    case Product::Partner:
        identity = {PARTNER_VENDOR_ID, PARTNER_PRODUCT_ID, 0};
        break;
    }
    if (revision > 3 || (revision % 2 == 1 && product != Product::Main)) {
        throw std::invalid_argument(
            fmt::format("there is no revision {} of this product: 0 and 2 exist of every product, "
                        "1 and 3 of the main one only",
                        revision));
    }
    identity.bcdDevice = revision == 0 ? 0x0050 : static_cast<std::uint16_t>(revision << 8);
    return identity;
}

std::uint16_t defaultBcdUsb(usb::Speed link) {
    return link == usb::Speed::Super ? 0x0300 : 0x0210;
}

std::vector<std::uint8_t> deviceDescriptor(const Identity& identity, std::uint16_t bcdUsb, usb::Speed link) {
    std::vector<std::uint8_t> out{18, kDeviceType};
    put16(out, bcdUsb);
    // On SuperSpeed the packet size of endpoint 0 is given as a power of two.
    out.insert(out.end(), {0, 0, 0, static_cast<std::uint8_t>(link == usb::Speed::Super ? 9 : 64)});
    put16(out, identity.idVendor);
    put16(out, identity.idProduct);
    put16(out, identity.bcdDevice);
    out.insert(out.end(), {0, 1, 2, 1});
    return out;
}

std::vector<std::uint8_t> configurationDescriptor(usb::Speed link) {
    const bool super = link == usb::Speed::Super;
    std::vector<std::uint8_t> out{9, kConfigurationType, 0, 0, kInterfaceCount, 1, 0, 0x80};
    // bMaxPower: 500 mA in units of 2 mA, 896 mA in units of 8 mA.
    out.push_back(super ? 112 : 250);
    putInterface(out, 0, 0);
    putInterface(out, kStreamingInterface, 1);
    putEndpoint(out, link, kBulkOutEndpoint, kBulk, super ? 1024 : 512, 0);
    putInterface(out, kStatusInterface, 1);
    putEndpoint(out, link, kInterruptInEndpoint, kInterrupt, kReportPacket, 4);
    out[2] = static_cast<std::uint8_t>(out.size());
    out[3] = static_cast<std::uint8_t>(out.size() >> 8);
    return out;
}

std::vector<std::uint8_t> bosDescriptor(usb::Speed link) {
    // USB 2.0 extension with link power management; SuperSpeed adds its own capability.
    std::vector<std::uint8_t> out{5, kBosType, 0, 0, 1, 7, kCapabilityType, 2, 0x02, 0, 0, 0};
    if (link == usb::Speed::Super) {
        out.insert(out.end(), {10, kCapabilityType, 3, 0, 0x0C, 0, 2, 10, 0xFF, 0x07});
        out[4] = 2;
    }
    out[2] = static_cast<std::uint8_t>(out.size());
    return out;
}

std::vector<std::uint8_t> stringDescriptor(std::uint8_t index, Product product) {
    std::string text;
    switch (index) {
    case 0:
        return {4, kStringType, 0x09, 0x04};
    case 1:
        text = product == Product::Partner ? "Partner display adapter" : "USB display adapter";
        break;
    case 2:
        text = "MODEL0001";
        break;
    default:
        return {};
    }
    std::vector<std::uint8_t> out{static_cast<std::uint8_t>(2 + 2 * text.size()), kStringType};
    for (const char letter : text) {
        put16(out, static_cast<std::uint8_t>(letter));
    }
    return out;
}

} // namespace model
