// The adapter's circuit board behind its USB interface: registers and their effects, the serial bus
// with its devices, the frame input, frame memory and the video output.
//
// Not locked: the adapter calls it with its mutex held. Time comes in with each call.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/adapter_options.h"
#include "model/ddc.h"
#include "model/frame_memory.h"
#include "model/memories.h"
#include "model/output_mode.h"
#include "model/register_file.h"
#include "model/serial_master.h"
#include "model/statistics.h"
#include "model/stream_pace.h"
#include "model/timing.h"
#include "model/transmitter.h"

namespace model {

class Board {
  public:
    explicit Board(const AdapterOptions& options);
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    std::uint32_t readRegister(std::uint16_t offset, usb::Time now);
    void writeRegister(std::uint16_t offset, std::uint32_t value, usb::Time now);
    std::uint32_t peekRegister(std::uint16_t offset, usb::Time now) const;

    // One bulk transfer. Whether another picture than before is visible now.
    bool receive(std::span<const std::uint8_t> bytes, usb::Time now);
    // The streaming interface was selected anew or its pipe reset: the next transfer begins a frame.
    void restartFraming() { zeroLengthDue_ = false; }

    void attachMonitor(std::span<const std::uint8_t> edid);
    void detachMonitor();
    void reportFrameError();
    void dropNextFrame() { dropNext_ = true; }
    // Interrupt reports that have come up since the last call.
    std::vector<std::uint8_t> takeReports() { return std::exchange(reports_, {}); }

    // Why the screen is dark, as one phrase; empty while it shows a picture.
    std::string_view darkReason() const;
    std::optional<OutputMode> outputMode() const;
    Picture picture() const; // while the screen is not dark
    const FrameMemory& frameMemory() const { return frames_; }

    ViolationLog violations;
    Statistics statistics;
    DdcBus ddc;
    Eeprom eeprom;
    SpiFlash flash;
    SerialMaster serial{violations, flash};
    std::optional<Transmitter> transmitter;

  private:
    // What the timing and clock registers add up to; kept until one of them changes.
    struct Signal {
        Timing timing;
        double clock = 0;      // Hz, 0 while the PLL is stopped
        ViolationKind kind{};  // of the fault
        std::string fault;     // empty for a signal that a monitor can show
        bool reported = false; // the fault is in the violation list
    };

    std::uint32_t status() const;
    void writeSerialControl(std::uint32_t value, usb::Time now);
    void writeControl(std::uint32_t value);
    void writePll(std::uint32_t value, usb::Time now);
    void writeOutput(std::uint32_t value, usb::Time now);
    void flush();
    void updateSignal();
    VideoInput videoInput() const;

    std::uint32_t powerBits() const;
    bool outputPowered() const { return registers_.all(reg::kSerialControl, powerBits()); }
    bool driversOn() const { return registers_.all(reg::kOutput, reg::kOutputDriverA | reg::kOutputDriverB); }
    bool pllRuns() const;
    TimingImages timingImages() const;
    FrameLayout frameLayout() const;

    bool acceptsData(std::size_t bytes, usb::Time now);
    void receiveZeroLength(usb::Time now);
    bool receiveFrame(std::span<const std::uint8_t> bytes, usb::Time now);
    void raise(std::uint32_t statusEvents);

    const AdapterOptions& options_;
    RegisterFile registers_;
    DdcPort ddcPort_{ddc};
    Signal signal_;

    std::uint32_t seenEvents_ = 0; // status events that a read has shown (revisions 0 and 1)
    std::vector<std::uint8_t> reports_;

    bool flushed_ = true;   // from a flush to the next release of the timing generator
    bool asleep_ = false;   // from a power-down to that release: data is discarded without a violation
    bool scanning_ = false; // a complete frame has arrived since the last flush
    bool zeroLengthDue_ = false;
    bool swallowedFrame_ = false; // the last transfer was a frame that was discarded in sleep
    bool dropNext_ = false;
    StreamPace pace_;
    FrameMemory frames_;
    std::uint64_t frameNumber_ = 0;   // of the last complete frame
    std::uint64_t contentNumber_ = 0; // of the last one that differed from the one before
    std::uint64_t shownContent_ = 0;  // the contentNumber_ that was last on the screen
    usb::Time frameTime_ = 0;
};

} // namespace model
