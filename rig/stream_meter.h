// What streaming costs and how it goes: frames, bytes, time, levels.
#pragma once

#include "rig/driver_probe.h"
#include "rig/session.h"
#include "tool/report.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace tool {

class StreamMeter {
  public:
    // Measures from now on.
    explicit StreamMeter(Session& session);
    ~StreamMeter();
    StreamMeter(const StreamMeter&) = delete;
    StreamMeter& operator=(const StreamMeter&) = delete;

    // After each present: takes a sample.
    void framePresented();

    // The last picture is there.
    void finish();

    void report(Report& report, bool realTime) const;

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
        model::Statistics adapter;
    };
    struct Sample {
        usb::Time time = 0;
        std::uint64_t bytes = 0; // since the sample before
        std::uint64_t transfers = 0;
        unsigned bitsPerPixel = 0;
        bool compressed = false;
        unsigned compressionLevel = 0;
        unsigned quantisationLevel = 0;
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
    std::uint64_t framesEncodedAgain() const;
    std::uint64_t formatSwitches() const;
    void reportFrames(Report& report, bool realTime) const;
    void reportCpu(Report& report) const;
    void reportLevels(Report& report) const;
    Json series() const;

    Session& session_;
    std::shared_ptr<Screen> screen_ = std::make_shared<Screen>();
    Counters begin_;
    Counters end_;
    Counters atLastSample_;
    std::uint64_t presented_ = 0;
    std::vector<Sample> samples_;
};

} // namespace tool
