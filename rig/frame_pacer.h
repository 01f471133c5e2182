// Times at which the frames of a stream are due.
#pragma once

#include "platform/machine.h"

#include <cstdint>

namespace rig {

class FramePacer {
  public:
    // Frame 0 is due now; `rate` frames are due per second.
    FramePacer(platform::Machine& machine, unsigned rate)
        : machine_(machine), rate_(rate), begin_(machine.clock().now()) {}

    // Returns at once for a frame that is late.
    void waitFor(std::uint64_t frame) {
        const usb::Time due = begin_ + static_cast<usb::Time>(frame) * usb::kSecond / rate_;
        const usb::Time now = machine_.clock().now();
        if (now < due) {
            machine_.sleep(due - now);
        }
    }

  private:
    platform::Machine& machine_;
    unsigned rate_;
    usb::Time begin_;
};

} // namespace rig
