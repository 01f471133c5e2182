// The adapter, with the monitor plugged into it: the device side of everything the driver does.
//
// It is a `usb::Device` and answers transfers inside `submit` unless it has nothing to say yet (an interrupt
// IN without a report) or is deaf; the link in front of it charges the time on the wire. All members may be
// called from any thread. One mutex guards the whole state; it is never held while a transfer's `complete` or
// a listener runs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "model/descriptors.h"
#include "model/picture.h"
#include "model/violation.h"
#include "platform/usb/clock.h"
#include "platform/usb/device.h"

namespace model {

constexpr std::uint8_t kControlEndpoint = 0x00;

// How the monitor's DDC lines reach an adapter that carries a transmitter. The adapter without one always
// reads the EDID with its own serial master.
enum class DdcPath : std::uint8_t { Transmitter, AdapterMaster };

struct AdapterOptions {
    unsigned revision = 2; // 0 to 3; with the product it fixes the descriptor's identity (see `identityOf`)
    Product product = Product::Main;
    usb::Speed link = usb::Speed::Super;
    bool transmitter = false;
    DdcPath ddcPath = DdcPath::Transmitter;

    // Departures from what revision, product and link give, for adapters that do not exist.
    std::optional<std::uint16_t> bcdUsb;
    std::optional<std::uint16_t> idVendor;
    std::optional<std::uint16_t> idProduct;
    std::optional<std::uint16_t> bcdDevice;
    std::vector<std::uint8_t> configurationDescriptor; // empty: the regular one
};

// Parts that can stop answering.
enum class Part : std::uint8_t {
    Control,      // control transfers stay pending until the host withdraws them
    SerialMaster, // a started serial command never ends
    Transmitter,  // the transmitter does not acknowledge its address
};

enum class TransmitterFault : std::uint8_t {
    None,
    Stuck, // it acknowledges its address and then holds the clock line: each access hangs to the bus time-out
};

// State of the DDC lines as the transmitter's DDC master sees them.
enum class DdcFault : std::uint8_t {
    None,
    Busy,  // an unfinished transaction holds the bus; an abort frees it
    Stuck, // the data line is held low for good; neither an abort nor the adapter's master gets through
};

enum class Memory : std::uint8_t { Eeprom, Flash };

struct Statistics {
    std::uint64_t controlTransfers = 0;
    std::uint64_t registerReads = 0;
    std::uint64_t registerWrites = 0;
    std::uint64_t interruptReports = 0; // delivered to the host
    std::uint64_t bulkTransfers = 0;    // zero-length ones included
    std::uint64_t bytesReceived = 0;    // on the bulk endpoint
    std::uint64_t framesReceived = 0;   // complete and correct
    std::uint64_t framesRepeated = 0;   // of these, the ones equal to the frame before
    std::uint64_t framesShown = 0;      // of these, the ones that the screen was lit for
    std::uint64_t framesBroken = 0;     // with a wrong length or stream
    std::uint64_t framesDropped = 0;    // on command
    std::uint64_t bytesDiscarded = 0;   // bulk data that arrived while the output was asleep, off or flushed
    std::uint64_t frameErrors = 0;      // reported in the status register
    std::uint64_t serialCommands = 0;
};

// The frame stream the adapter is programmed for.
struct OutputMode {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t horizontalTotal = 0;
    std::uint32_t verticalTotal = 0;
    double pixelClock = 0; // Hz, 0 while the PLL stands still
    double refresh = 0;    // Hz, 0 while the PLL stands still
    PixelFormat format = PixelFormat::Bgr24;
    bool compressed = false;
    bool zeroLengthTransfers = false;
};

struct AviInfoFrame {
    unsigned version = 0;
    unsigned vic = 0;             // CEA-861 video identification code, 0 for none
    std::string_view aspect;      // "4:3", "16:9" or "none"
    std::string_view colorimetry; // "ITU-R 601", "ITU-R 709" or "none"
    std::uint8_t checksum = 0;
    std::vector<std::uint8_t> bytes; // header, checksum and 13 data bytes
};

struct AudioInfoFrame {
    unsigned channels = 0;
    std::uint8_t checksum = 0;
    std::vector<std::uint8_t> bytes; // header, checksum and 10 data bytes
};

// What the sink at the end of the HDMI cable is told.
struct TransmitterReport {
    bool powered = false;
    bool hdmi = false; // else DVI
    bool avMute = false;
    bool videoMuted = false; // no TMDS picture, whatever the cause
    bool audioRunning = false;
    bool spdif = false;                  // audio input, else I2S
    unsigned sampleRate = 0;             // Hz from the channel status, 0 when it names none
    std::optional<AviInfoFrame> avi;     // being repeated, with a correct checksum
    std::optional<AudioInfoFrame> audio; // being repeated, with a correct checksum
};

class Adapter final : public usb::Device {
  public:
    // Throws std::invalid_argument for a revision that the product never had.
    Adapter(usb::Clock& clock, const AdapterOptions& options);
    ~Adapter() override; // as `disconnect`: transfers that are still pending complete with `Gone`
    Adapter(const Adapter&) = delete;
    Adapter& operator=(const Adapter&) = delete;

    usb::Speed speed() const override;
    void submit(usb::Transfer& transfer) override;
    void cancel(usb::Transfer& transfer) override;
    void disconnect() override;

    const AdapterOptions& options() const;

    // The monitor. `edid` holds whole blocks of 128 bytes; an empty one is a monitor without DDC.
    void attachMonitor(std::span<const std::uint8_t> edid);
    void detachMonitor();
    // The monitor goes away now and comes back with the same EDID after `away`.
    void pulseHotPlug(usb::Time away = 100 * usb::kMillisecond);

    // Faults.
    void reportFrameError();           // sets the status bit and sends a report, as a starved link does
    void dropNextFrame();              // the next correct frame is lost, and reported so
    void stall(std::uint8_t endpoint); // the default pipe: its next request; another: until CLEAR_FEATURE
    void setDeaf(Part part, bool deaf);
    void setTransmitterFault(TransmitterFault fault);
    void setDdcFault(DdcFault fault);
    void limitDdcAnswers(std::optional<std::uint32_t> bytes); // the monitor answers so many more, then hangs
    // From audio start to S/PDIF lock; nothing: it never locks. Default 20 ms.
    void setSpdifLock(std::optional<usb::Time> delay);

    // The memories. Loading replaces the start of the contents; throws std::length_error when it is too long.
    std::vector<std::uint8_t> memory(Memory which) const;
    void loadMemory(Memory which, std::span<const std::uint8_t> contents);
    // The next writes that cover `address`, so many of them, store its lowest bit wrong.
    void corruptWrites(Memory which, std::uint32_t address, unsigned times = 1);
    void refuseWrites(Memory which, bool refuse); // the memory does not acknowledge writes

    // The screen.
    std::optional<Picture> picture() const;       // nothing while the screen is dark
    std::string darkReason() const;               // one phrase; empty while the screen is lit
    std::optional<RawFrame> rawFrame() const;     // frame memory behind the picture; nothing while dark
    std::uint64_t rawChecksum() const;            // of frame memory, without copying it; 0 while dark
    std::optional<OutputMode> outputMode() const; // nothing while no consistent timing is programmed
    std::optional<TransmitterReport> transmitter() const; // nothing when none is fitted

    // Called whenever another frame than the one before has become visible. Runs on the thread that delivered
    // the frame, at up to DISPATCH_LEVEL, with no lock held.
    void setScreenListener(std::function<void()> listener);

    Statistics statistics() const;
    std::vector<Violation> violations() const; // the first `ViolationLog::kKept`
    std::uint64_t violationCount() const;
    void clearViolations();

    // Looks into a register without the side effects of an access over USB.
    std::uint32_t peekRegister(std::uint16_t offset) const;
    std::uint8_t peekTransmitter(unsigned bank, std::uint8_t reg) const;

  private:
    struct State;
    std::shared_ptr<State> state_; // shared with scheduled actions, which may outlive the adapter
};

} // namespace model
