#include "model/board.h"

#include <fmt/format.h>

namespace model {

Board::Board(const AdapterOptions& options) : options_(options) {
    serial.connect(i2c::kEdid, ddcPort_);
    serial.connect(i2c::kSegmentPointer, ddcPort_);
    serial.connect(i2c::kEeprom, eeprom);
    if (options.transmitter) {
        transmitter.emplace(violations, ddc);
        serial.connect(i2c::kTransmitter, *transmitter);
    }
    updateSignal();
}

// Registers.

std::uint32_t Board::peekRegister(std::uint16_t offset, usb::Time now) const {
    if (!registers_.has(offset)) {
        return 0;
    }
    switch (offset) {
    case reg::kStatus:
        return status();
    case reg::kSerialControl:
        return registers_.get(offset) | (serial.done(now) ? reg::kSerialDone : 0);
    case reg::kSerialReadData:
        return serial.readData(now);
    default:
        return registers_.get(offset);
    }
}

std::uint32_t Board::readRegister(std::uint16_t offset, usb::Time now) {
    statistics.registerReads++;
    if (!registers_.has(offset)) {
        violations.add(now, ViolationKind::UnknownRegister, fmt::format("read of register 0x{:04X}", offset));
        return 0;
    }
    const std::uint32_t value = peekRegister(offset, now);
    if (offset == reg::kStatus) {
        seenEvents_ |= value & reg::kStatusEvents;
        if (options_.revision >= 2) {
            registers_.set(reg::kStatus, registers_.get(reg::kStatus) & ~reg::kStatusEvents);
        }
    }
    return value;
}

void Board::writeRegister(std::uint16_t offset, std::uint32_t value, usb::Time now) {
    statistics.registerWrites++;
    if (!registers_.has(offset)) {
        violations.add(now, ViolationKind::UnknownRegister,
                       fmt::format("write of 0x{:08X} to register 0x{:04X}", value, offset));
        return;
    }
    switch (offset) {
    case reg::kStatus:
        registers_.set(reg::kStatus, registers_.get(reg::kStatus) & ~seenEvents_);
        seenEvents_ = 0;
        break;
    case reg::kSerialReadData:
        break; // read only
    case reg::kSerialControl:
        writeSerialControl(value, now);
        break;
    case reg::kControl:
        writeControl(value);
        break;
    case reg::kPll:
        writePll(value, now);
        break;
    case reg::kOutput:
        writeOutput(value, now);
        break;
    case reg::kScanControl:
        registers_.set(offset, value & ~reg::kScanFlush);
        if ((value & reg::kScanFlush) != 0) {
            flush();
        }
        break;
    case reg::kHorizontalSize:
    case reg::kHorizontalSync:
    case reg::kVerticalSize:
    case reg::kVerticalSync:
        if (registers_.get(offset) != value) {
            scanning_ = false;
        }
        registers_.set(offset, value);
        updateSignal();
        break;
    default:
        registers_.set(offset, value);
        break;
    }
}

std::uint32_t Board::status() const {
    std::uint32_t value = registers_.get(reg::kStatus) & reg::kStatusEvents;
    if (ddc.attached()) {
        value |= reg::kStatusMonitor;
    }
    if (ddc.hasEdid()) {
        value |= reg::kStatusEdid;
        if (!transmitter || options_.ddcPath == DdcPath::AdapterMaster) {
            value |= reg::kStatusEdidMaster;
        }
    }
    return value;
}

void Board::writeSerialControl(std::uint32_t value, usb::Time now) {
    const std::uint32_t old = registers_.get(reg::kSerialControl);
    registers_.set(reg::kSerialControl, value & ~reg::kSerialDone);
    if ((old & ~value & powerBits()) != 0) {
        asleep_ = true;
    }
    if (options_.revision >= 2 && (value & ~old & reg::kPowerStage1) != 0) {
        registers_.set(reg::kStandby, registers_.get(reg::kStandby) & ~reg::kStandbyOutput);
    }
    if ((value & reg::kSerialDone) != 0) {
        return;
    }

    if (options_.revision >= 2 && (value & reg::kPowerStage2) == 0) {
        // A host switches the power off by writing back the word that it has read; after an unanswered
        // command bit 31 of it is clear.
        if (((value ^ old) & reg::kSerialCommandMask) != 0) {
            violations.add(now, ViolationKind::SerialUnpowered,
                           fmt::format("serial command 0x{:08X} without power bit 28", value));
        }
        serial.refuse();
        return;
    }
    statistics.serialCommands++;
    if (transmitter) {
        transmitter->setInput(videoInput());
    }
    serial.start(value, registers_.get(reg::kSerialWriteData), now);
}

void Board::writeControl(std::uint32_t value) {
    const std::uint32_t old = registers_.get(reg::kControl);
    registers_.set(reg::kControl, value);
    if ((value & reg::kControlBandwidth) == 0) {
        pace_.reset();
    }
    if (options_.revision == 0 || (old & ~value & reg::kControlPll) == 0) {
        return;
    }
    registers_.set(reg::kPll, 0);
    updateSignal();
}

void Board::writePll(std::uint32_t value, usb::Time now) {
    if (options_.revision != 0 && !registers_.any(reg::kControl, reg::kControlPll)) {
        violations.add(now, ViolationKind::BadClock,
                       fmt::format("PLL word 0x{:06X} written while the PLL is stopped", value));
        return;
    }
    registers_.set(reg::kPll, value);
    updateSignal();
}

void Board::writeOutput(std::uint32_t value, usb::Time now) {
    const bool wasHeld = registers_.any(reg::kOutput, reg::kOutputTimingHold);
    registers_.set(reg::kOutput, value);
    if ((value & reg::kOutputTimingHold) != 0) {
        return;
    }
    if (wasHeld && !pllRuns()) {
        violations.add(now, ViolationKind::OutputWithoutClock,
                       "the timing generator was released while the PLL stands still");
    }
    if (flushed_) {
        asleep_ = false;
    }
    flushed_ = false;
}

void Board::flush() {
    // Revision 0 has no power bits that would distinguish a host that wakes in mid-stream from one that sends
    // too early.
    if (options_.revision == 0) {
        asleep_ = true;
    }
    flushed_ = true;
    scanning_ = false;
    zeroLengthDue_ = false;
    pace_.reset();
}

std::uint32_t Board::powerBits() const {
    switch (options_.revision) {
    case 0:
        return 0;
    case 1:
        return reg::kPowerStage1;
    default:
        return reg::kPowerStage1 | reg::kPowerStage2;
    }
}

// Timing and clock.

bool Board::pllRuns() const {
    return pllClock(registers_.get(reg::kPll)) > 0 &&
           (options_.revision == 0 || registers_.any(reg::kControl, reg::kControlPll));
}

TimingImages Board::timingImages() const {
    return {registers_.get(reg::kHorizontalSize), registers_.get(reg::kHorizontalSync),
            registers_.get(reg::kVerticalSize), registers_.get(reg::kVerticalSync)};
}

void Board::updateSignal() {
    signal_ = {};
    signal_.timing = decodeTiming(timingImages());
    signal_.clock = pllRuns() ? pllClock(registers_.get(reg::kPll)) : 0;
    if (std::string cause = contradiction(timingImages()); !cause.empty()) {
        signal_.kind = ViolationKind::BadTiming;
        signal_.fault = std::move(cause);
    } else if (signal_.clock > 0 && !nominalRefresh(signal_.timing, signal_.clock)) {
        signal_.kind = ViolationKind::BadClock;
        signal_.fault =
            fmt::format("PLL word 0x{:06X} gives {:.3f} MHz, which is {:.2f} Hz at {}x{} in {}x{}",
                        registers_.get(reg::kPll), signal_.clock / 1e6,
                        refreshOf(signal_.timing, signal_.clock), signal_.timing.width, signal_.timing.height,
                        signal_.timing.horizontalTotal, signal_.timing.verticalTotal);
    }
}

VideoInput Board::videoInput() const {
    if (!signal_.fault.empty()) {
        return {};
    }
    return {signal_.timing.width, signal_.timing.height, signal_.clock};
}

FrameLayout Board::frameLayout() const {
    const std::uint32_t format = registers_.get(reg::kFormat);
    FrameLayout layout{signal_.timing.width, signal_.timing.height, PixelFormat::Bgr24,
                       (format & reg::kFormatCompressed) != 0};
    if ((format & (reg::kFormatRgb555 | reg::kFormatRgb565)) != 0) {
        layout.format = layout.compressed || (format & reg::kFormatRgb555) != 0 ? PixelFormat::Rgb555
                                                                                : PixelFormat::Rgb565;
    } else if ((format & reg::kFormatRgb8) != 0 && !(layout.compressed && options_.revision == 2)) {
        layout.format = PixelFormat::Rgb8;
    } else if (layout.compressed) {
        layout.format = PixelFormat::Bgr24Red7;
    }
    return layout;
}

std::optional<OutputMode> Board::outputMode() const {
    if (!signal_.fault.empty()) {
        return std::nullopt;
    }
    const FrameLayout layout = frameLayout();
    return OutputMode{layout.width,
                      layout.height,
                      signal_.timing.horizontalTotal,
                      signal_.timing.verticalTotal,
                      signal_.clock,
                      refreshOf(signal_.timing, signal_.clock),
                      layout.format,
                      layout.compressed,
                      registers_.any(reg::kControl, reg::kControlZeroLength)};
}

// The frame input.

bool Board::receive(std::span<const std::uint8_t> bytes, usb::Time now) {
    statistics.bulkTransfers++;
    statistics.bytesReceived += bytes.size();
    if (!acceptsData(bytes.size(), now)) {
        statistics.bytesDiscarded += bytes.size();
        swallowedFrame_ = asleep_ && !bytes.empty();
        return false;
    }
    if (!bytes.empty()) {
        swallowedFrame_ = false;
        return receiveFrame(bytes, now);
    }
    // The output may wake between a swallowed frame and the transfer that closes it.
    if (!std::exchange(swallowedFrame_, false)) {
        receiveZeroLength(now);
    }
    return false;
}

bool Board::acceptsData(std::size_t bytes, usb::Time now) {
    // A host may go to sleep in mid-stream and continue its stream when it wakes. Until it has set the output
    // up again, or has found it intact, its data is discarded.
    if (asleep_) {
        return false;
    }
    const auto refuse = [&](ViolationKind kind, std::string_view why) {
        violations.add(now, kind, fmt::format("{} bytes of bulk data {}", bytes, why));
        return false;
    };
    if (registers_.any(reg::kOutput, reg::kOutputTimingHold)) {
        return refuse(ViolationKind::UnexpectedData, "before any mode was set");
    }
    if (flushed_) {
        return refuse(ViolationKind::UnexpectedData,
                      "between a flush and the release of the timing generator");
    }
    if (!outputPowered()) {
        return refuse(ViolationKind::UnexpectedData, "for an output stage without power");
    }
    if (!registers_.any(reg::kFormat, reg::kFormatEnable)) {
        return refuse(ViolationKind::UnexpectedData, "while the frame input is off");
    }
    if (signal_.clock == 0 && driversOn()) {
        return refuse(ViolationKind::OutputWithoutClock, "while the PLL stands still");
    }
    if (!signal_.fault.empty()) {
        if (!signal_.reported) {
            violations.add(now, signal_.kind, signal_.fault);
        }
        signal_.reported = true;
    }
    // Without a clock the frame input cannot take anything in, and without a timing nothing can be a frame.
    return signal_.clock > 0 && signal_.kind != ViolationKind::BadTiming;
}

void Board::receiveZeroLength(usb::Time now) {
    if (!zeroLengthDue_) {
        violations.add(now, ViolationKind::ExtraZeroLength,
                       registers_.any(reg::kControl, reg::kControlZeroLength)
                           ? "a zero-length transfer that closes no frame"
                           : "a zero-length transfer in a mode that has none");
    }
    zeroLengthDue_ = false;
}

bool Board::receiveFrame(std::span<const std::uint8_t> bytes, usb::Time now) {
    if (zeroLengthDue_) {
        violations.add(now, ViolationKind::MissingZeroLength, "a frame began before the last one was closed");
    }
    zeroLengthDue_ = registers_.any(reg::kControl, reg::kControlZeroLength);

    if (std::exchange(dropNext_, false)) {
        statistics.framesDropped++;
        reportFrameError();
        return false;
    }
    const FrameMemory::Result stored = frames_.store(frameLayout(), bytes);
    if (!stored.good) {
        statistics.framesBroken++;
        violations.add(now, stored.kind, stored.cause);
        return false;
    }
    statistics.framesReceived++;
    frameNumber_ = statistics.framesReceived;
    frameTime_ = now;
    scanning_ = true;
    if (stored.repeated) {
        statistics.framesRepeated++;
    } else {
        contentNumber_ = frameNumber_;
    }
    if (registers_.any(reg::kControl, reg::kControlBandwidth) &&
        pace_.isTooSlow(now, refreshOf(signal_.timing, signal_.clock))) {
        reportFrameError();
    }

    if (!darkReason().empty()) {
        return false;
    }
    statistics.framesShown++;
    return std::exchange(shownContent_, contentNumber_) != contentNumber_;
}

// Monitor and events.

void Board::attachMonitor(std::span<const std::uint8_t> edid) {
    ddc.attach(edid);
    ddcPort_.monitorChanged();
    raise(reg::kStatusMonitorFound);
}

void Board::detachMonitor() {
    ddc.detach();
    ddcPort_.monitorChanged();
    raise(reg::kStatusMonitorLost);
}

void Board::reportFrameError() {
    statistics.frameErrors++;
    raise(reg::kStatusFrameError);
}

void Board::raise(std::uint32_t statusEvents) {
    registers_.set(reg::kStatus, registers_.get(reg::kStatus) | statusEvents);
    reports_.push_back(kReportStatusChanged);
}

std::string_view Board::darkReason() const {
    if (!ddc.attached()) {
        return "no monitor is attached";
    }
    if (!outputPowered()) {
        return "the output stage has no power";
    }
    if (!driversOn()) {
        return "the output drivers are off";
    }
    if (options_.revision >= 2 && registers_.any(reg::kStandby, reg::kStandbyOutput)) {
        return "the output is in standby";
    }
    if (registers_.any(reg::kOutput, reg::kOutputTimingHold)) {
        return "no mode was set";
    }
    if (signal_.clock == 0) {
        return "the pixel clock stands still";
    }
    if (!signal_.fault.empty()) {
        return signal_.fault;
    }
    if (registers_.any(reg::kOrigin, reg::kOriginMask)) {
        return "the picture's origin lies outside the frame";
    }
    if (!registers_.any(reg::kFormat, reg::kFormatEnable)) {
        return "the frame input is off";
    }
    if (registers_.any(reg::kControl, reg::kControlTransmitterHold)) {
        return "the output is held for the transmitter";
    }
    if (!scanning_) {
        return "no frame has arrived since the output was set up";
    }
    if (transmitter) {
        return transmitter->darkReason();
    }
    return {};
}

Picture Board::picture() const {
    const RawFrame& frame = frames_.frame();
    return {frame.width, frame.height, toBgrx32(frame), frameNumber_, frameTime_, frames_.checksum()};
}

} // namespace model
