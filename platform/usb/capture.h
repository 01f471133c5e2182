// Writes what passes to a pcapng file of link type 220 (LINKTYPE_USB_LINUX_MMAPPED): every control transfer
// with setup, data and status, every bulk submission and completion with its data, every interrupt report.
#pragma once

#include "platform/usb/clock.h"
#include "platform/usb/device.h"

#include <cstdint>
#include <memory>
#include <string>

namespace usb {

class Capture final : public Device {
  public:
    // Throws std::system_error when the file cannot be created.
    Capture(Device& inner, Clock& clock, const std::string& file, std::uint16_t deviceNumber = 1);
    ~Capture() override;

    Speed speed() const override;
    void submit(Transfer& transfer) override;
    void cancel(Transfer& transfer) override;
    void disconnect() override;

    // Writes what is buffered and closes the file; later transfers pass unrecorded. Throws on a write error.
    void finish();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

} // namespace usb
