#include "model/standard_requests.h"

#include <utility>

#include "model/descriptors.h"

namespace model {

namespace {

// USB 2.0, tables 9-4 to 9-6; USB 3.2, 9.4.
constexpr std::uint8_t kGetStatus = 0, kClearFeature = 1, kSetFeature = 3, kSetAddress = 5,
                       kGetDescriptor = 6, kGetConfiguration = 8, kSetConfiguration = 9, kGetInterface = 10,
                       kSetInterface = 11, kSetSel = 48, kSetIsochDelay = 49;
constexpr std::uint8_t kDevice = 1, kConfiguration = 2, kString = 3, kInterface = 4, kEndpoint = 5, kBos = 15;
constexpr std::uint8_t kToDevice = 0, kToInterface = 1, kToEndpoint = 2;
constexpr std::uint16_t kEndpointHalt = 0;
constexpr std::uint8_t kSelfPoweredOff = 0;

// Whether some descriptor of this type in the configuration has these bytes at these places. The descriptor
// may be a test's own: nothing in it is trusted.
template <typename Match>
bool anyDescriptor(const std::vector<std::uint8_t>& bytes, std::uint8_t type, std::size_t least,
                   Match match) {
    for (std::size_t at = 0; at + 2 <= bytes.size() && bytes[at] >= 2; at += bytes[at]) {
        if (bytes[at + 1] == type && bytes[at] >= least && at + bytes[at] <= bytes.size() &&
            match(&bytes[at])) {
            return true;
        }
    }
    return false;
}

} // namespace

StandardRequests::StandardRequests(const AdapterOptions& options) : options_(options) {
    Identity identity = identityOf(options.revision, options.product);
    identity.idVendor = options.idVendor.value_or(identity.idVendor);
    identity.idProduct = options.idProduct.value_or(identity.idProduct);
    identity.bcdDevice = options.bcdDevice.value_or(identity.bcdDevice);
    device_ = deviceDescriptor(identity, options.bcdUsb.value_or(defaultBcdUsb(options.link)), options.link);
    configurationBytes_ = options.configurationDescriptor.empty() ? configurationDescriptor(options.link)
                                                                  : options.configurationDescriptor;
}

std::optional<std::vector<std::uint8_t>> StandardRequests::answer(const usb::SetupPacket& setup) {
    switch (setup.request) {
    case kGetStatus:
        if ((setup.requestType & 0x1F) == kToEndpoint) {
            return Bytes{static_cast<std::uint8_t>(halted(static_cast<std::uint8_t>(setup.index)) ? 1 : 0),
                         0};
        }
        return Bytes{kSelfPoweredOff, 0};
    case kClearFeature:
        return changeFeature(setup, false);
    case kSetFeature:
        return changeFeature(setup, true);
    case kSetAddress:
    case kSetSel:
    case kSetIsochDelay:
        return Bytes{};
    case kGetDescriptor:
        return descriptor(setup.value);
    case kGetConfiguration:
        return Bytes{configuration_};
    case kSetConfiguration:
        return setConfiguration(setup.value);
    case kGetInterface:
        if (!configured() || !hasSetting(setup.index, alternates_[setup.index])) {
            return std::nullopt;
        }
        return Bytes{alternates_[setup.index]};
    case kSetInterface:
        return setInterface(setup.value, setup.index);
    default:
        return std::nullopt;
    }
}

std::optional<std::vector<std::uint8_t>> StandardRequests::descriptor(std::uint16_t value) const {
    const auto index = static_cast<std::uint8_t>(value);
    switch (value >> 8) {
    case kDevice:
        return device_;
    case kConfiguration:
        if (index != 0) {
            return std::nullopt;
        }
        return configurationBytes_;
    case kString: {
        Bytes text = stringDescriptor(index, options_.product);
        if (text.empty()) {
            return std::nullopt;
        }
        return text;
    }
    case kBos:
        return bosDescriptor(options_.link);
    default:
        return std::nullopt;
    }
}

std::optional<std::vector<std::uint8_t>> StandardRequests::setConfiguration(std::uint16_t value) {
    const std::uint8_t only = configurationBytes_.size() > 5 ? configurationBytes_[5] : 1;
    if (value != 0 && value != only) {
        return std::nullopt;
    }
    configuration_ = static_cast<std::uint8_t>(value);
    alternates_.clear();
    halted_.clear();
    pipeReset_ = true;
    return Bytes{};
}

std::optional<std::vector<std::uint8_t>> StandardRequests::setInterface(std::uint16_t alternate,
                                                                        std::uint16_t interface) {
    if (!configured() || !hasSetting(interface, alternate)) {
        return std::nullopt;
    }
    alternates_[interface] = static_cast<std::uint8_t>(alternate);
    if (interface == kStreamingInterface) {
        halted_.erase(kBulkOutEndpoint);
        pipeReset_ = true;
    }
    if (interface == kStatusInterface) {
        halted_.erase(kInterruptInEndpoint);
    }
    return Bytes{};
}

std::optional<std::vector<std::uint8_t>> StandardRequests::changeFeature(const usb::SetupPacket& setup,
                                                                         bool set) {
    const std::uint8_t recipient = setup.requestType & 0x1F;
    // Remote wake-up, link power states and function suspend: accepted, without effect here.
    if (recipient == kToDevice || recipient == kToInterface) {
        return Bytes{};
    }
    if (recipient != kToEndpoint || setup.value != kEndpointHalt || !hasEndpoint(setup.index)) {
        return std::nullopt;
    }
    const auto endpoint = static_cast<std::uint8_t>(setup.index);
    if (set) {
        halted_.insert(endpoint);
    } else {
        halted_.erase(endpoint);
    }
    pipeReset_ |= endpoint == kBulkOutEndpoint;
    return Bytes{};
}

bool StandardRequests::hasEndpoint(std::uint16_t address) const {
    return (address & 0x7F) == 0 || (configured() && anyDescriptor(configurationBytes_, kEndpoint, 7,
                                                                   [address](const std::uint8_t* descriptor) {
                                                                       return descriptor[2] == address;
                                                                   }));
}

bool StandardRequests::hasSetting(std::uint16_t interface, std::uint16_t alternate) const {
    return anyDescriptor(configurationBytes_, kInterface, 9, [=](const std::uint8_t* descriptor) {
        return descriptor[2] == interface && descriptor[3] == alternate;
    });
}

} // namespace model
