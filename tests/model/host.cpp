#include "tests/model/host.h"

#include <numeric>

namespace model::test {

usb::Status Host::control(const usb::SetupPacket& setup, std::vector<std::uint8_t>* data) {
    usb::Transfer transfer;
    transfer.setup = setup;
    if (data != nullptr) {
        transfer.data = *data;
    }
    bool completed = false;
    transfer.complete = [&](usb::Transfer&) { completed = true; };
    adapter.submit(transfer);
    if (!completed) {
        adapter.cancel(transfer);
        return usb::Status::Cancelled;
    }
    if (data != nullptr && transfer.isIn()) {
        data->resize(transfer.actual);
    }
    return transfer.status;
}

std::uint32_t Host::read(std::uint16_t offset) {
    std::vector<std::uint8_t> bytes(4);
    if (control({0xC0, 0x40, 0, offset, 4}, &bytes) != usb::Status::Success) {
        return 0;
    }
    return static_cast<std::uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
           static_cast<std::uint32_t>(bytes[3]) << 24;
}

void Host::write(std::uint16_t offset, std::uint32_t value) {
    std::vector<std::uint8_t> bytes(4);
    for (unsigned i = 0; i < 4; i++) {
        bytes[i] = static_cast<std::uint8_t>(value >> 8 * i);
    }
    control({0x40, 0x41, 0, offset, 4}, &bytes);
}

usb::Status Host::send(std::vector<std::uint8_t> bytes) {
    usb::Transfer transfer;
    transfer.type = usb::TransferType::Bulk;
    transfer.endpoint = kBulkOutEndpoint;
    transfer.data = bytes;
    transfer.complete = [](usb::Transfer&) {};
    adapter.submit(transfer);
    return transfer.status;
}

bool Host::serial(std::uint32_t command) {
    std::uint32_t control = read(reg::kSerialControl);
    if (adapter.options().revision >= 2) {
        control |= reg::kPowerStage2;
    }
    write(reg::kSerialControl, (control & 0x7FFC0000) | command);
    clock.advance(3 * usb::kMillisecond);
    for (unsigned poll = 0; poll < 10; poll++) {
        if ((read(reg::kSerialControl) & reg::kSerialDone) != 0) {
            return true;
        }
        clock.advance(10 * usb::kMillisecond);
    }
    return false;
}

bool Host::i2cRead(std::uint8_t device, std::uint8_t offset, std::uint32_t& value) {
    const bool done = serial(0x80u | device | static_cast<std::uint32_t>(offset) << 8);
    value = done ? read(reg::kSerialReadData) : 0;
    return done;
}

bool Host::i2cWrite(std::uint8_t device, std::uint8_t offset, std::uint32_t value) {
    write(reg::kSerialWriteData, value);
    return serial(device | static_cast<std::uint32_t>(offset) << 8);
}

bool Host::spiRead(std::uint32_t address, std::uint32_t& value) {
    const bool done = serial(0x10080u | (address & 0xFF) << 8 | address >> 8);
    value = done ? read(reg::kSerialReadData) : 0;
    return done;
}

bool Host::spiWrite(std::uint32_t address, std::uint32_t value, bool first) {
    write(reg::kSerialWriteData, value);
    return serial(0x10000u | (first ? 0x20000u : 0u) | (address & 0xFF) << 8 | address >> 8);
}

// The transmitter.

std::uint8_t Host::txRead(std::uint8_t reg) {
    std::uint32_t word = 0;
    i2cRead(i2c::kTransmitter, reg & 0xFC, word);
    return static_cast<std::uint8_t>(word >> 8 * (reg & 3));
}

void Host::txWrite(std::uint8_t reg, std::uint8_t value) {
    std::uint32_t word = 0;
    if (!i2cRead(i2c::kTransmitter, reg & 0xFC, word)) {
        return;
    }
    const unsigned shift = 8 * (reg & 3);
    word = (word & ~(0xFFu << shift)) | static_cast<std::uint32_t>(value) << shift;
    i2cWrite(i2c::kTransmitter, reg & 0xFC, word);
}

void Host::txMask(std::uint8_t reg, std::uint8_t mask, std::uint8_t value) {
    txWrite(reg, static_cast<std::uint8_t>((txRead(reg) & ~mask) | (value & mask)));
}

void Host::txPowerUp() {
    constexpr std::uint8_t steps[][3] = {{0x0F, 0x78, 0x38}, {0x05, 0x01, 0x00}, {0x61, 0x20, 0x00},
                                         {0x62, 0x44, 0x00}, {0x64, 0x40, 0x00}, {0x61, 0x10, 0x00},
                                         {0x62, 0x08, 0x08}, {0x64, 0x04, 0x04}, {0x6A, 0xFF, 0x70},
                                         {0x66, 0xFF, 0x1F}, {0x63, 0xFF, 0x38}, {0x0F, 0x78, 0x08}};
    for (const auto& step : steps) {
        txMask(step[0], step[1], step[2]);
    }
}

void Host::txPowerDown() {
    constexpr std::uint8_t steps[][3] = {{0x0F, 0x40, 0x00}, {0x61, 0x10, 0x10}, {0x62, 0x08, 0x00},
                                         {0x64, 0x04, 0x00}, {0x61, 0x20, 0x20}, {0x62, 0x44, 0x44},
                                         {0x64, 0x40, 0x40}, {0x05, 0x01, 0x01}, {0x0F, 0x78, 0x78}};
    for (const auto& step : steps) {
        txMask(step[0], step[1], step[2]);
    }
}

void Host::txProgram(const Mode& mode, bool hdmi) {
    const auto mute = [this](bool on) {
        txWrite(0x0F, 0);
        txMask(0xC1, 0x01, on);
        txWrite(0xC6, 0x03);
    };
    set(reg::kControl, reg::kControlTransmitterHold);
    mute(true);

    std::uint8_t avi[14] = {0x10, 0x58, 0, 0};
    if (mode.width == 640 && mode.height == 480) {
        avi[3] = 1;
    } else if (mode.width == 1280 && mode.height == 720) {
        avi[1] = 0xA8, avi[3] = 4;
    } else if (mode.width == 1920 && mode.height == 1080) {
        avi[1] = 0xA8, avi[3] = 16;
    }
    const auto aviSum = static_cast<std::uint8_t>(0x6F - std::accumulate(std::begin(avi), std::end(avi), 0));
    txWrite(0x0F, 1);
    i2cWrite(i2c::kTransmitter, 0x58,
             static_cast<std::uint32_t>(avi[0] | avi[1] << 8 | avi[2] << 16 | avi[3] << 24));
    i2cWrite(i2c::kTransmitter, 0x5C, static_cast<std::uint32_t>(aviSum) << 8);
    i2cWrite(i2c::kTransmitter, 0x60, 0);
    i2cWrite(i2c::kTransmitter, 0x64, 0);
    txWrite(0x0F, 0);
    txWrite(0xCD, 0x03);

    const bool high = mode.horizontalTotal * mode.verticalTotal * mode.refresh > 80'000'000;
    txWrite(0x04, 0x09);
    txWrite(0x70, static_cast<std::uint8_t>((txRead(0x70) & 0x02) | 0x01));
    txMask(0x0F, 0x10, 0x10);
    txWrite(0x72, txRead(0x72) & 0x1C);
    txWrite(0xC0, hdmi);
    txWrite(0x61, 0x10);
    txMask(0x62, 0x90, high ? 0x80 : 0x10);
    txMask(0x64, 0x89, high ? 0x80 : 0x09);
    txMask(0x68, 0x10, high ? 0x80 : 0x10);
    txMask(0x04, 0x28, 0x00);
    txWrite(0x61, 0x00);
    txWrite(0x04, 0x01);
    txWrite(0x0F, 0x00);
    txWrite(0x61, 0x00);

    txWrite(0x0F, 1);
    for (const auto& [reg, value] : {std::pair{0x68, 1}, {0x69, 0}, {0x6B, 0}, {0x6C, 0}, {0x6D, 0x70}}) {
        txWrite(static_cast<std::uint8_t>(reg), static_cast<std::uint8_t>(value));
    }
    txWrite(0x0F, 0);
    txWrite(0xCE, 0x03);

    txMask(0x04, 0x14, 0x14);
    txWrite(0x58, 0x15);
    txMask(0x0F, 0x10, 0);
    txWrite(0xE0, txRead(0xE0) & 0xEF);
    txWrite(0x0F, 1);
    for (const auto& [reg, value] :
         {std::pair{0x33, 0}, {0x34, 0x10}, {0x35, 0}, {0x30, 0}, {0x31, 0}, {0x32, 0}}) {
        txWrite(static_cast<std::uint8_t>(reg), static_cast<std::uint8_t>(value));
    }
    txWrite(0x0F, 0);
    txWrite(0xF8, 0xC3);
    txWrite(0xF8, 0xA5);
    txMask(0xC5, 0x02, 0);
    txWrite(0xF8, 0xFF);
    txMask(0x04, 0x14, 0x10);
    txWrite(0x0F, 1);
    i2cWrite(i2c::kTransmitter, 0x90, 0x02000000);
    txWrite(0x94, 0);
    i2cWrite(i2c::kTransmitter, 0x98, 0x0000F200);
    txWrite(0x0F, 0);
    i2cWrite(i2c::kTransmitter, 0xE0, 0x00E44101);
    i2cWrite(i2c::kTransmitter, 0xE4, 0);
    txMask(0x09, 0x80, 0);
    txMask(0x04, 0x14, 0);
    mute(false);
    clear(reg::kControl, reg::kControlTransmitterHold);
}

std::vector<std::uint8_t> Host::txDdcRead(std::uint8_t segment, std::uint8_t offset, std::uint8_t count) {
    txMask(0x10, 1, 1);
    for (const std::uint8_t command : {0x0F, 0x0F, 0x09}) {
        txWrite(0x15, command);
    }
    i2cWrite(i2c::kTransmitter, 0x10,
             0xA001u | static_cast<std::uint32_t>(offset) << 16 | static_cast<std::uint32_t>(count) << 24);
    i2cWrite(i2c::kTransmitter, 0x14,
             0x0300u | segment | static_cast<std::uint32_t>(offset) << 16 |
                 static_cast<std::uint32_t>(count) << 24);
    clock.advance(10 * usb::kMillisecond);
    std::vector<std::uint8_t> bytes;
    for (unsigned i = 3; i < count; i++) {
        bytes.push_back(txRead(0x17));
    }
    return bytes;
}

// Whole procedures.

void Host::powerUp() {
    set(reg::kScanControl, reg::kScanFlush);
    std::uint32_t identity = 0;
    if (i2cRead(i2c::kTransmitter, 0, identity) && (identity & 0x0FFFFFFF) == 0x06124954) {
        txMask(0x04, 0x20, 0x20);
        clock.advance(300 * usb::kMillisecond);
        txPowerUp();
    }
    if (adapter.options().revision == 1) {
        set(reg::kSerialControl, reg::kPowerStage1);
        set(reg::kControl, 0x14);
        clear(reg::kAnalog, 0xF0000000);
    } else if (adapter.options().revision == 2) {
        set(reg::kScanControl, reg::kScanFlush);
        set(reg::kSerialControl, reg::kPowerStage1);
        clock.advance(750 * usb::kMillisecond);
        set(reg::kSerialControl, reg::kPowerStage2);
        clock.advance(750 * usb::kMillisecond);
        clear(reg::kSpare, 1u << 10);
    }
}

void Host::enableOutput() {
    set(reg::kOutput, reg::kOutputDriverB);
    set(reg::kOutput, reg::kOutputDriverA);
    if (adapter.options().revision == 2) {
        clear(reg::kStandby, reg::kStandbyOutput);
    }
}

void Host::disableOutput() {
    clear(reg::kControl, reg::kControlPll);
    if (adapter.options().revision == 2) {
        set(reg::kStandby, reg::kStandbyOutput);
    }
    clear(reg::kOutput, reg::kOutputDriverB);
    clear(reg::kOutput, reg::kOutputDriverA);
}

void Host::setMode(const Mode& mode, std::uint32_t format, bool zeroLength, bool bandwidth) {
    zeroLengthMode = zeroLength;
    if (read(reg::kPll) != mode.pll) {
        set(reg::kControl, reg::kControlPll);
        write(reg::kPll, mode.pll);
    }
    set(reg::kScanControl, reg::kScanFlush);
    clear(reg::kControl, 0x39682000);
    set(reg::kControl, (zeroLength ? reg::kControlZeroLength : reg::kControlNoZeroLength) |
                           (bandwidth ? reg::kControlBandwidth : 0));
    clear(reg::kFormat, 0x9F0020CC);
    set(reg::kFormat, 0x8D | format);
    const std::uint32_t horizontalStart = mode.horizontalSync + mode.horizontalBackPorch + 1;
    const std::uint32_t verticalStart = mode.verticalSync + mode.verticalBackPorch + 1;
    write(reg::kHorizontalSize, mode.width << 16 | mode.horizontalTotal);
    write(reg::kHorizontalSync, mode.horizontalSync << 16 | horizontalStart);
    write(reg::kVerticalSize, mode.height << 16 | mode.verticalTotal);
    write(reg::kVerticalSync, verticalStart << 20 | mode.verticalSync << 16 | verticalStart);
    clear(reg::kOrigin, reg::kOriginMask);
    clear(reg::kOutput, reg::kOutputTimingHold);
    control({0x01, 11, 0, kStreamingInterface, 0});
}

void Host::sleep() {
    clear(reg::kSerialControl, reg::kPowerStage1);
    clock.advance(750 * usb::kMillisecond);
    clear(reg::kSerialControl, reg::kPowerStage2);
    clear(reg::kControl, reg::kControlPll);
    if (adapter.options().revision == 2) {
        set(reg::kStandby, reg::kStandbyOutput);
    }
}

void Host::sendFrame(std::vector<std::uint8_t> bytes) {
    send(std::move(bytes));
    if (zeroLengthMode) {
        send({});
    }
}

std::vector<std::string> Host::takeViolations() {
    std::vector<std::string> lines;
    for (const Violation& violation : adapter.violations()) {
        lines.push_back(std::string(name(violation.kind)) + ": " + violation.cause);
    }
    adapter.clearViolations();
    return lines;
}

std::vector<ViolationKind> Host::takeViolationKinds() {
    std::vector<ViolationKind> kinds;
    for (const Violation& violation : adapter.violations()) {
        kinds.push_back(violation.kind);
    }
    adapter.clearViolations();
    return kinds;
}

std::vector<std::uint8_t> noise(std::size_t bytes, std::uint32_t seed) {
    std::vector<std::uint8_t> out(bytes);
    for (std::uint8_t& byte : out) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    return out;
}

std::vector<std::uint8_t> edidOf(unsigned blocks) {
    std::vector<std::uint8_t> edid(blocks * 128);
    for (std::size_t i = 0; i < edid.size(); i++) {
        edid[i] = static_cast<std::uint8_t>(i % 128 + 16 * (i / 128));
    }
    return edid;
}

} // namespace model::test
