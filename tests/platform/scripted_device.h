// A device that does what a test tells it to.
#pragma once

#include "platform/usb/device.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace platform_test {

class ScriptedDevice final : public usb::Device {
  public:
    explicit ScriptedDevice(usb::Speed speed) : speed_(speed) {}

    usb::Speed speed() const override { return speed_; }

    void submit(usb::Transfer& transfer) override {
        submitted.push_back(&transfer);
        if (gone_) {
            finish(transfer, usb::Status::Gone, 0);
        } else if (onSubmit != nullptr) {
            onSubmit(transfer);
        }
    }

    void cancel(usb::Transfer& transfer) override {
        if (std::find(submitted.begin(), submitted.end(), &transfer) != submitted.end()) {
            finish(transfer, usb::Status::Cancelled, 0);
        }
    }

    void disconnect() override {
        gone_ = true;
        while (!submitted.empty()) {
            finish(*submitted.front(), usb::Status::Gone, 0);
        }
    }

    void finish(usb::Transfer& transfer, usb::Status status, std::uint32_t actual) {
        std::erase(submitted, &transfer);
        transfer.status = status;
        transfer.actual = actual;
        const auto complete = std::move(transfer.complete);
        complete(transfer);
    }

    void accept(usb::Transfer& transfer) {
        finish(transfer, usb::Status::Success, static_cast<std::uint32_t>(transfer.data.size()));
    }

    std::function<void(usb::Transfer&)> onSubmit; // null: the device is deaf
    std::vector<usb::Transfer*> submitted;        // and not completed

  private:
    const usb::Speed speed_;
    bool gone_ = false;
};

} // namespace platform_test
