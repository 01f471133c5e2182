// Detects that the link does not carry the frames as fast as the screen needs them.
#pragma once

#include <cstdint>

#include "platform/usb/clock.h"

namespace model {

// Rule: over `kFrames` consecutive frames of one stream, the frames took on average more than `kTolerance`
// refresh periods each. A pause of more than `kPause` between two frames ends a stream: the host has stopped
// sending, so the link is not too slow. After a result the count starts again, so a slow stream is reported
// once in `kFrames` frames.
class StreamPace {
  public:
    static constexpr unsigned kFrames = 8;
    static constexpr double kTolerance = 1.25;
    static constexpr usb::Time kPause = usb::kSecond;

    void reset() {
        frames_ = 0;
        last_ = -1;
    }

    // A frame is complete. Whether the stream has now proved too slow for `refresh` (Hz).
    bool isTooSlow(usb::Time now, double refresh) {
        if (last_ < 0 || now - last_ > kPause) {
            begin_ = now;
            frames_ = 0;
        } else {
            frames_++;
        }
        last_ = now;
        if (frames_ < kFrames) {
            return false;
        }
        const double allowed = kFrames * kTolerance * usb::kSecond / refresh;
        const bool slow = static_cast<double>(now - begin_) > allowed;
        begin_ = now;
        frames_ = 0;
        return slow;
    }

  private:
    unsigned frames_ = 0; // since begin_
    usb::Time begin_ = 0;
    usb::Time last_ = -1;
};

} // namespace model
