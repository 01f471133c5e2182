// The requests every USB device answers (USB 2.0, 9.4), and the state they change.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "model/adapter_options.h"

namespace model {

class StandardRequests {
  public:
    explicit StandardRequests(const AdapterOptions& options);

    // The data stage of an IN request (empty for one without), or nothing for STALL.
    std::optional<std::vector<std::uint8_t>> answer(const usb::SetupPacket& setup);

    bool configured() const { return configuration_ != 0; }
    bool halted(std::uint8_t endpoint) const { return halted_.contains(endpoint); }
    void halt(std::uint8_t endpoint) { halted_.insert(endpoint); }

    // Whether the streaming pipe has started afresh since the last call: by a configuration, an interface
    // setting, or the end of a halt.
    bool takePipeReset() { return std::exchange(pipeReset_, false); }

  private:
    using Bytes = std::vector<std::uint8_t>;

    std::optional<Bytes> descriptor(std::uint16_t value) const;
    std::optional<Bytes> setConfiguration(std::uint16_t value);
    std::optional<Bytes> setInterface(std::uint16_t alternate, std::uint16_t interface);
    std::optional<Bytes> changeFeature(const usb::SetupPacket& setup, bool set);
    bool hasEndpoint(std::uint16_t address) const;
    bool hasSetting(std::uint16_t interface, std::uint16_t alternate) const;

    const AdapterOptions& options_;
    Bytes device_;
    Bytes configurationBytes_;
    std::uint8_t configuration_ = 0;
    std::map<std::uint16_t, std::uint8_t> alternates_;
    std::set<std::uint8_t> halted_;
    bool pipeReset_ = false;
};

} // namespace model
