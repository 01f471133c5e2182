// Which adapter it is.
#pragma once

#include "model/descriptors.h"
#include "platform/usb/device.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace model {

// How the monitor's DDC lines reach an adapter that carries a transmitter. The adapter without one always
// reads the EDID with its own serial master.
enum class DdcPath : std::uint8_t { Transmitter, AdapterMaster };

struct AdapterOptions {
    unsigned revision = 2; // 0 to 3; with the product it fixes the descriptor's identity (see `identityOf`)
    Product product = Product::Main;
    usb::Speed link = usb::Speed::Super;
    bool transmitter = false;
    DdcPath ddcPath = DdcPath::Transmitter;

    // Departures from what revision, product and link give, for adapters that do not exist.
    std::optional<std::uint16_t> bcdUsb;
    std::optional<std::uint16_t> idVendor;
    std::optional<std::uint16_t> idProduct;
    std::optional<std::uint16_t> bcdDevice;
    std::vector<std::uint8_t> configurationDescriptor; // empty: the regular one
};

} // namespace model
