// What the host did wrong. Real hardware would show garbage, hang or do nothing; the model reports it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/usb/clock.h"

namespace model {

enum class ViolationKind : std::uint8_t {
    BadRequest,      // a setup packet, length or direction the adapter does not know
    NotConfigured,   // a vendor request before SET_CONFIGURATION
    UnknownRegister, // an offset at which the adapter has no register
    SerialBusy,      // another serial command while one was under way
    SerialUnpowered, // a serial command while the serial master has no power
    BadTiming,       // timing images that contradict each other
    BadClock, // a PLL word that gives no usable refresh for the timing, or one written to a stopped PLL
    OutputWithoutClock,  // the timing generator or the frame stream runs while the PLL is stopped
    UnexpectedData,      // bulk data while the output is not configured for any
    BadFrameLength,      // an uncompressed frame of another length than the mode's
    BadStream,           // a run stream that no decoder could follow to exactly one frame
    MissingZeroLength,   // a frame that should have been closed by a zero-length transfer was not
    ExtraZeroLength,     // a zero-length transfer where none belongs
    WrongBank,           // a transmitter register that the selected bank does not have
    UnpoweredFunction,   // a write to a transmitter function that is powered down
    LockedRegister,      // a change to a protected transmitter register without unlocking it
    BadInfoFrame,        // an InfoFrame with a wrong checksum, header or content for the mode
    BadTransmitterSetup, // the video path is not set up for the pixel clock, or a DDC command that cannot run
};

std::string_view name(ViolationKind kind);

struct Violation {
    usb::Time time = 0;
    ViolationKind kind{};
    std::string cause; // one sentence with the values at hand
};

// Keeps the first `kKept` violations and counts the rest: a driver that repeats one mistake on every frame
// must not fill the memory of the bench.
class ViolationLog {
  public:
    static constexpr std::size_t kKept = 1000;

    void add(usb::Time time, ViolationKind kind, std::string cause);
    void clear();
    const std::vector<Violation>& list() const { return list_; }
    std::uint64_t total() const { return total_; }

  private:
    std::vector<Violation> list_;
    std::uint64_t total_ = 0;
};

} // namespace model
