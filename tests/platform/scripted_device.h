// A device that does what a test tells it to.
#pragma once

#include "platform/usb/device.h"

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace platform_test {

class ScriptedDevice final : public usb::Device {
  public:
    explicit ScriptedDevice(usb::Speed speed) : speed_(speed) {}

    usb::Speed speed() const override { return speed_; }

    void submit(usb::Transfer& transfer) override {
        bool refused = false;
        {
            std::lock_guard lock(mutex_);
            refused = gone_;
            submitted.push_back(&transfer);
        }
        if (refused) {
            finish(transfer, usb::Status::Gone, 0);
        } else if (onSubmit != nullptr) {
            onSubmit(transfer);
        }
    }

    void cancel(usb::Transfer& transfer) override { finish(transfer, usb::Status::Cancelled, 0); }

    void disconnect() override {
        std::vector<usb::Transfer*> pending;
        {
            std::lock_guard lock(mutex_);
            gone_ = true;
            pending = submitted;
        }
        for (usb::Transfer* transfer : pending) {
            finish(*transfer, usb::Status::Gone, 0);
        }
    }

    // No effect on a transfer that has completed.
    void finish(usb::Transfer& transfer, usb::Status status, std::uint32_t actual) {
        {
            std::lock_guard lock(mutex_);
            if (std::erase(submitted, &transfer) == 0) {
                return;
            }
        }
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
    std::mutex mutex_;
    bool gone_ = false; // guarded by `mutex_`, like `submitted`
};

} // namespace platform_test
