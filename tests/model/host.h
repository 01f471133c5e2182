// The host's side of the cable for the model's tests: a clock that a test advances, and the register traffic
// of a host that knows the adapter. It shares nothing with the driver.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "model/adapter.h"
#include "model/registers.h"

namespace model::test {

class FakeClock final : public usb::Clock {
  public:
    usb::Time now() const override { return now_; }
    void schedule(usb::Time due, std::function<void()> action) override {
        actions_.emplace(std::max(due, now()), std::move(action));
    }
    void advance(usb::Time by) {
        const usb::Time end = now_ + by;
        while (!actions_.empty() && actions_.begin()->first <= end) {
            auto action = actions_.extract(actions_.begin());
            now_ = action.key();
            action.mapped()();
        }
        now_ = end;
    }

  private:
    std::atomic<usb::Time> now_ = 0;
    std::multimap<usb::Time, std::function<void()>> actions_;
};

struct Mode {
    std::uint32_t width, height, refresh;
    std::uint32_t horizontalTotal, horizontalSync, horizontalBackPorch;
    std::uint32_t verticalTotal, verticalSync, verticalBackPorch;
    std::uint32_t pll;
};

// Every timing the adapter has modes for, in the order of its documentation.
extern const std::vector<Mode> kModes;
const Mode& modeOf(std::uint32_t width, std::uint32_t height, std::uint32_t refresh = 60);

// Bits of `reg::kFormat` for the layouts of a stream.
constexpr std::uint32_t kBgr24 = 0, kRgb565 = reg::kFormatRgb565, kRgb555 = reg::kFormatRgb555,
                        kRgb8 = reg::kFormatRgb8, kCompressed = reg::kFormatCompressed;

// A monitor's EDID: `blocks` blocks whose bytes name their block and place.
std::vector<std::uint8_t> edidOf(unsigned blocks);

class Host {
  public:
    explicit Host(const AdapterOptions& options = {}, bool configure = true) : adapter(clock, options) {
        if (configure) {
            control({0x00, 9, 1, 0, 0});
        }
    }

    FakeClock clock;
    Adapter adapter;

    usb::Status control(const usb::SetupPacket& setup, std::vector<std::uint8_t>* data = nullptr);
    std::uint32_t read(std::uint16_t offset);
    void write(std::uint16_t offset, std::uint32_t value);
    void set(std::uint16_t offset, std::uint32_t bits) { write(offset, read(offset) | bits); }
    void clear(std::uint16_t offset, std::uint32_t bits) { write(offset, read(offset) & ~bits); }
    usb::Status send(std::vector<std::uint8_t> bytes);

    // Serial master: start, wait, poll ten times. Whether the command completed.
    bool serial(std::uint32_t command);
    bool i2cRead(std::uint8_t device, std::uint8_t offset, std::uint32_t& value);
    bool i2cWrite(std::uint8_t device, std::uint8_t offset, std::uint32_t value);
    bool spiRead(std::uint32_t address, std::uint32_t& value);
    bool spiWrite(std::uint32_t address, std::uint32_t value, bool first);

    // The transmitter, one register at a time.
    std::uint8_t txRead(std::uint8_t reg);
    void txWrite(std::uint8_t reg, std::uint8_t value);
    void txMask(std::uint8_t reg, std::uint8_t mask, std::uint8_t value);
    void txPowerUp();
    void txPowerDown();
    void txProgram(const Mode& mode, bool hdmi = true);
    // What an EDID reader gets for one request through the transmitter's DDC master.
    std::vector<std::uint8_t> txDdcRead(std::uint8_t segment, std::uint8_t offset, std::uint8_t count);

    // What a host does at power-up, for a monitor, for a mode, and around sleep.
    void powerUp();
    void enableOutput();
    void switchOn(unsigned edidBlocks = 1) {
        adapter.attachMonitor(edidOf(edidBlocks));
        powerUp();
        enableOutput();
    }
    void disableOutput();
    void setMode(const Mode& mode, std::uint32_t format = kBgr24, bool zeroLength = true,
                 bool bandwidth = false);
    void displayOff() { set(reg::kScanControl, reg::kScanFlush); }
    void sleep();
    // A correct frame for the mode set last, with its zero-length transfer when it needs one.
    void sendFrame(std::vector<std::uint8_t> bytes);

    // "kind: cause" of each violation since the last call, for messages and comparison.
    std::vector<std::string> takeViolations();
    std::vector<ViolationKind> takeViolationKinds();

    bool zeroLengthMode = false;
};

// A picture's worth of bytes that differ from place to place and from seed to seed.
std::vector<std::uint8_t> noise(std::size_t bytes, std::uint32_t seed);
inline std::size_t pixels(const Mode& mode) {
    return std::size_t{mode.width} * mode.height;
}

} // namespace model::test
