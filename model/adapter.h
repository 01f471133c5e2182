// The adapter, with the monitor plugged into it: the device side of everything the driver does.
//
// It is a `usb::Device` and completes transfers inside `submit`, except an interrupt IN transfer while there
// is no report, and all transfers of a part that does not answer. The link in front of it accounts for the
// time on the wire. All members may be called from any thread. One mutex guards the whole state; it is never
// held while a transfer's `complete` or a listener runs.
#pragma once

#include "model/adapter_options.h"
#include "model/faults.h"
#include "model/output_mode.h"
#include "model/picture.h"
#include "model/statistics.h"
#include "model/transmitter_report.h"
#include "model/violation.h"
#include "platform/usb/clock.h"
#include "platform/usb/device.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace model {

constexpr std::uint8_t kControlEndpoint = 0x00;

enum class Memory : std::uint8_t { Eeprom, Flash };

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
    // The monitor is detached now and attached again with the same EDID after `away`.
    void pulseHotPlug(usb::Time away = 100 * usb::kMillisecond);

    // Faults.
    void reportFrameError(); // sets the status bit and sends a report, as a link that is too slow does
    void dropNextFrame();    // the next correct frame is lost, and reported so
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
    // The next writes that cover `address`, up to `times`, invert its lowest bit.
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

    // Reads a register without the side effects of an access over USB.
    std::uint32_t peekRegister(std::uint16_t offset) const;
    std::uint8_t peekTransmitter(unsigned bank, std::uint8_t reg) const;

  private:
    struct State;
    std::shared_ptr<State> state_; // shared with scheduled actions, which may outlive the adapter
};

} // namespace model
