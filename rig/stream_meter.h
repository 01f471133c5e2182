// Measures a stream: frames, bytes, time, levels.
#pragma once

#include "rig/driver_probe.h"
#include "rig/session.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace rig {

// The stream just after a frame was presented, or at its end.
struct StreamSample {
    usb::Time time = 0;      // since the meter began
    std::uint64_t bytes = 0; // since the sample before
    std::uint64_t transfers = 0;
    unsigned bitsPerPixel = 0;
    bool compressed = false;
    unsigned compressionLevel = 0;
    unsigned quantizationLevel = 0;
    std::uint64_t frameErrors = 0; // since the meter began
};

struct StreamFigures {
    std::uint64_t presented = 0; // frames
    std::uint64_t shown = 0;     // pictures that became visible
    std::uint64_t sent = 0;      // transfers, including repeated frames
    std::uint64_t bytes = 0;
    std::uint64_t bandwidth = 0; // of the link, bytes per second
    double busy = 0;             // share of the time in which the link carried data
    double frameRate = 0;        // pictures per second; 0 with fewer than two
    double seconds = 0;
    std::uint64_t fillNanoseconds = 0;     // processor time of the client's fills,
    std::uint64_t convertNanoseconds = 0;  // of the driver's threads, which convert and queue,
    std::uint64_t completeNanoseconds = 0; // and of its DPCs, which send and complete
    std::uint64_t allocations = 0;         // pool allocations and framework objects
    std::uint64_t frameErrors = 0;
    std::uint64_t formatSwitches = 0; // changes of bits per pixel
    std::uint64_t framesEncodedAgain = 0;
    std::vector<StreamSample> samples;
};

class StreamMeter {
  public:
    // Measures from now on.
    explicit StreamMeter(Session& session);
    ~StreamMeter();
    StreamMeter(const StreamMeter&) = delete;
    StreamMeter& operator=(const StreamMeter&) = delete;

    // Takes a sample. Call it after each present.
    void framePresented();

    // Ends the measurement, after the last picture has become visible.
    StreamFigures finish();

  private:
    struct Counters {
        usb::Time time = 0;
        std::uint64_t bytes = 0;
        std::uint64_t transfers = 0;
        usb::Time busy = 0;
        std::uint64_t fill = 0;     // ns
        std::uint64_t convert = 0;  // ns
        std::uint64_t complete = 0; // ns
        std::uint64_t allocations = 0;
        std::uint64_t frameErrors = 0;
    };
    // Pictures that became visible; written by the task that delivers a frame.
    struct Screen {
        std::atomic<std::uint64_t> changes{0};
        std::atomic<usb::Time> first{0};
        std::atomic<usb::Time> last{0};
    };

    Counters count() const;
    void sample();
    double frameRate() const;

    Session& session_;
    std::shared_ptr<Screen> screen_ = std::make_shared<Screen>();
    Counters begin_;
    Counters atLastSample_;
    std::uint64_t presented_ = 0;
    std::vector<StreamSample> samples_;
};

} // namespace rig
