#include "model/transmitter.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>

#include "model/registers.h"

namespace model {

namespace {

using Kind = I2cAnswer::Kind;

constexpr std::uint8_t kBankedFrom = 0x30;

constexpr bool isCommon(std::uint8_t reg) {
    return reg < kBankedFrom;
}

template <std::size_t N>
constexpr bool contains(const std::uint8_t (&groups)[N], std::uint8_t group) {
    return std::find(std::begin(groups), std::end(groups), group) != std::end(groups);
}

// The groups of four that exist, by their first register.
constexpr std::uint8_t kCommonGroups[] = {0x00, 0x04, 0x08, 0x0C, 0x10, 0x14, 0x20};
constexpr std::uint8_t kBank0AlwaysOn[] = {0x60, 0x64, 0x68, 0xBC};
constexpr std::uint8_t kBank0Functions[] = {0x58, 0x5C, 0x70, 0xC0, 0xC4, 0xCC, 0xE0, 0xE4, 0xF8};
constexpr std::uint8_t kBank1Functions[] = {0x30, 0x34, 0x58, 0x5C, 0x60, 0x64, 0x68, 0x6C, 0x90, 0x94, 0x98};

constexpr bool isBank0(std::uint8_t group) {
    return contains(kBank0AlwaysOn, group) || contains(kBank0Functions, group);
}

constexpr bool isReadOnly(std::uint8_t reg) {
    return reg < tx::kReset || reg == tx::kInterrupt || reg == tx::kDdcStatus || reg == tx::kDdcFifo;
}

// CEA-861-D, table 3: the codes of the formats that the adapter has modes for.
constexpr struct {
    unsigned vic;
    std::uint32_t width, height;
    unsigned aspectCode; // M1, M0 of the AVI InfoFrame: 1 is 4:3, 2 is 16:9
} kVideoCodes[] = {
    {1, 640, 480, 1},    {4, 1280, 720, 2},   {16, 1920, 1080, 2}, {19, 1280, 720, 2},
    {31, 1920, 1080, 2}, {32, 1920, 1080, 2}, {34, 1920, 1080, 2},
};

// IEC 60958-3, channel status bits 24 to 27.
constexpr struct {
    std::uint8_t code;
    unsigned rate;
} kSamplingCodes[] = {{3, 32'000},  {0, 44'100},   {2, 48'000},   {8, 88'200},
                      {10, 96'000}, {12, 176'400}, {14, 192'000}, {9, 768'000}};

std::uint8_t sum(const std::vector<std::uint8_t>& bytes) {
    return static_cast<std::uint8_t>(std::accumulate(bytes.begin(), bytes.end(), 0u));
}

} // namespace

Transmitter::Transmitter(ViolationLog& violations, DdcBus& ddc) : violations_(violations), ddc_(ddc) {
    auto& common = registers_[0];
    for (unsigned i = 0; i < 4; i++) {
        common[tx::kIdentity + i] = static_cast<std::uint8_t>(tx::kIdentityWord >> 8 * i);
    }
    common[tx::kPowerReference] = 1;
    common[tx::kBank] = 0x78;
    common[tx::kDriver] = tx::kDriverPowerDown | tx::kDriverReset;
    common[tx::kClockPll] = tx::kClockPllPowerDown;
    common[tx::kDataPll] = tx::kDataPllPowerDown;
    resetFunctions();
}

void Transmitter::resetFunctions() {
    auto& bank0 = registers_[0];
    bank0[tx::kReset] = tx::kResetVideo | tx::kResetAudio | tx::kResetAudioFifo | 1;
    bank0[tx::kBank] &= static_cast<std::uint8_t>(~tx::kBankSelect);
    for (const std::uint8_t group : kBank0Functions) {
        std::fill_n(bank0.begin() + group, 4, std::uint8_t{0});
    }
    registers_[1].fill(0);
    bank0[tx::kAvMute] = 1;
    bank0[tx::kAudioRegenerate] = tx::kAudioRegenerateProtected;
    bank0[tx::kSwap] = 0;
    ddcFifo_.clear();
    ddcResult_ = 0;
    ddcEnd_ = 0;
    spdifStart_.reset();
    keysSeen_ = 0;
    aviChanged_ = audioChanged_ = true;
}

I2cAnswer Transmitter::read(std::uint8_t, std::uint8_t offset, usb::Time now) {
    if (deaf_ || now < answersFrom_) {
        return {};
    }
    if (fault_ == TransmitterFault::Stuck) {
        return {Kind::Hung, 0, 0};
    }
    I2cAnswer answer{Kind::Completed, 0, 0};
    const std::uint8_t group = offset & 0xFC;
    if (!mayAccess(group, false, now)) {
        return answer;
    }
    const unsigned bank = bank0(tx::kBank) & tx::kBankSelect;
    for (unsigned i = 0; i < 4; i++) {
        answer.data |= static_cast<std::uint32_t>(readByte(bank, static_cast<std::uint8_t>(group + i), now))
                       << 8 * i;
    }
    return answer;
}

I2cAnswer Transmitter::write(std::uint8_t, std::uint8_t offset, std::uint32_t data, usb::Time now) {
    if (deaf_ || now < answersFrom_) {
        return {};
    }
    if (fault_ == TransmitterFault::Stuck) {
        return {Kind::Hung, 0, 0};
    }
    const std::uint8_t group = offset & 0xFC;
    if (mayAccess(group, true, now)) {
        const unsigned bank = bank0(tx::kBank) & tx::kBankSelect;
        for (unsigned i = 0; i < 4; i++) {
            writeByte(bank, static_cast<std::uint8_t>(group + i), static_cast<std::uint8_t>(data >> 8 * i),
                      now);
        }
    }
    return {Kind::Completed, 0, 0};
}

bool Transmitter::mayAccess(std::uint8_t group, bool write, usb::Time now) {
    if (isCommon(group)) {
        if (contains(kCommonGroups, group)) {
            return true;
        }
        violations_.add(now, ViolationKind::UnknownRegister,
                        fmt::format("the transmitter has no registers at 0x{:02X}", group));
        return false;
    }
    const unsigned bank = bank0(tx::kBank) & tx::kBankSelect;
    const bool here = bank == 0 ? isBank0(group) : contains(kBank1Functions, group);
    if (!here) {
        const bool there = bank == 1 ? isBank0(group) : contains(kBank1Functions, group);
        violations_.add(now, there ? ViolationKind::WrongBank : ViolationKind::UnknownRegister,
                        fmt::format("transmitter registers at 0x{:02X} {} in bank {}", group,
                                    write ? "written" : "read", bank));
        return false;
    }
    if (write && !powered() && !(bank == 0 && contains(kBank0AlwaysOn, group))) {
        violations_.add(
            now, ViolationKind::UnpoweredFunction,
            fmt::format("transmitter registers at 0x{:02X} of bank {} written while it is powered down",
                        group, bank));
        return false;
    }
    return true;
}

std::uint8_t Transmitter::readByte(unsigned bank, std::uint8_t reg, usb::Time now) {
    if (isCommon(reg)) {
        bank = 0;
    }
    if (bank == 1) {
        return registers_[1][reg];
    }
    switch (reg) {
    case tx::kInterrupt:
        return ddcHung_ || ddc_.held() ? tx::kInterruptDdcHang : 0;
    case tx::kDdcCommand:
        return 0;
    case tx::kDdcStatus:
        return ddcStatus(now);
    case tx::kDdcFifo: {
        if (ddcFifo_.empty() || ddcBusy(now)) {
            return 0;
        }
        const std::uint8_t byte = ddcFifo_.front();
        ddcFifo_.pop_front();
        return byte;
    }
    case tx::kSpdifStatus:
        return spdifLocked(now) ? tx::kSpdifLocked : 0;
    default:
        return registers_[0][reg];
    }
}

void Transmitter::writeByte(unsigned bank, std::uint8_t reg, std::uint8_t value, usb::Time now) {
    if (isCommon(reg)) {
        bank = 0;
    }
    if (bank == 1) {
        aviChanged_ |= reg >= tx::kAviData && reg < tx::kAudioData;
        audioChanged_ |= reg >= tx::kAudioData && reg <= tx::kAudioChecksum;
        registers_[1][reg] = value;
        return;
    }
    if (isReadOnly(reg) || reg == tx::kSpdifStatus) {
        return;
    }
    if (reg == tx::kDdcCommand) {
        runDdcCommand(value, now);
        return;
    }
    if (reg == tx::kReset && (value & tx::kResetAll) != 0) {
        resetFunctions();
        answersFrom_ = now + kResetTime;
        return;
    }
    writeFunction(reg, value, now);
}

void Transmitter::writeFunction(std::uint8_t reg, std::uint8_t value, usb::Time now) {
    const std::uint8_t old = registers_[0][reg];
    if (reg == tx::kAudioRegenerate && keysSeen_ != 2 &&
        ((old ^ value) & tx::kAudioRegenerateProtected) != 0) {
        violations_.add(now, ViolationKind::LockedRegister,
                        "the protected bit of transmitter register 0xC5 changed without unlocking it");
        return;
    }
    registers_[0][reg] = value;
    switch (reg) {
    case tx::kLock:
        unlock(value);
        break;
    case tx::kSpdifControl:
        if ((value & tx::kSpdifStart) == 0) {
            spdifStart_.reset();
        } else if (!spdifStart_) {
            spdifStart_ = now;
        }
        break;
    case tx::kAvMute:
        if ((old & 1) != 0 && (value & 1) == 0) {
            checkVideoPath(now);
        }
        break;
    case tx::kAviPacket:
        if ((value & 1) != 0 && (aviChanged_ || value != old)) {
            checkAvi(now);
        }
        break;
    case tx::kAudioPacket:
        if ((value & 1) != 0 && (audioChanged_ || value != old)) {
            checkAudio(now);
        }
        break;
    default:
        break;
    }
}

void Transmitter::unlock(std::uint8_t key) {
    if (key == 0xC3) {
        keysSeen_ = 1;
    } else {
        keysSeen_ = key == 0xA5 && keysSeen_ == 1 ? 2 : 0;
    }
}

// DDC master.

void Transmitter::runDdcCommand(std::uint8_t command, usb::Time now) {
    switch (command & 0x0F) {
    case tx::kDdcCommandRead:
        startDdcRead(now);
        break;
    case tx::kDdcCommandClearFifo:
        ddcFifo_.clear();
        break;
    case tx::kDdcCommandAbort: {
        const bool held = ddcHung_ || ddc_.held();
        ddc_.recover();
        ddcFifo_.clear();
        if (ddc_.held()) {
            ddcHung_ = true; // the abort has no effect: the line stays low
            break;
        }
        ddcHung_ = false;
        ddcResult_ = tx::kDdcStatusDone;
        ddcEnd_ = held ? now + kAbortTime : now;
        break;
    }
    default:
        break;
    }
}

void Transmitter::startDdcRead(usb::Time now) {
    const unsigned count = bank0(tx::kDdcCount);
    if ((bank0(tx::kDdcControl) & 1) == 0 || count < tx::kDdcShift || count > tx::kDdcFifoDepth) {
        violations_.add(now, ViolationKind::BadTransmitterSetup,
                        fmt::format("a DDC read of {} bytes with the master's control register at 0x{:02X}",
                                    count, bank0(tx::kDdcControl)));
        return;
    }
    if (ddcBusy(now) || ddcHung_) {
        return; // ignored, as by a master that is still freeing the bus
    }
    ddcFifo_.clear();
    std::uint8_t bytes[tx::kDdcFifoDepth];
    DdcBus::ReadResult result{Kind::NotAcknowledged, 0};
    if (bank0(tx::kDdcAddress) == i2c::kEdid << 1) {
        result = ddc_.read(bank0(tx::kDdcSegment), bank0(tx::kDdcOffset), {bytes, count});
    }
    for (unsigned i = tx::kDdcShift; i < result.bytes; i++) {
        ddcFifo_.push_back(bytes[i]);
    }

    // Segment pointer and address, address and offset, address, data; nine bits each.
    ddcEnd_ = now + (5 + count) * 9 * kDdcBit;
    ddcHung_ = result.kind == Kind::Hung;
    ddcResult_ = result.kind == Kind::Completed ? tx::kDdcStatusDone : tx::kDdcStatusNoAcknowledge;
}

std::uint8_t Transmitter::ddcStatus(usb::Time now) const {
    return ddcHung_ || ddcBusy(now) ? tx::kDdcStatusBusy : ddcResult_;
}

// Video, audio and InfoFrames.

bool Transmitter::powered() const {
    return (bank0(tx::kPowerReference) & 1) == 0 && (bank0(tx::kDriver) & tx::kDriverPowerDown) == 0 &&
           (bank0(tx::kClockPll) & (tx::kClockPllPowerDown | tx::kClockPllRun)) == tx::kClockPllRun &&
           (bank0(tx::kDataPll) & (tx::kDataPllPowerDown | tx::kDataPllRun)) == tx::kDataPllRun;
}

bool Transmitter::bandFits() const {
    const bool high = (bank0(tx::kClockPll) & (tx::kClockPllHigh | tx::kClockPllLow)) == tx::kClockPllHigh &&
                      (bank0(tx::kDataPll) & tx::kDataPllBandMask) == tx::kDataPllHigh &&
                      (bank0(tx::kRange) & tx::kRangeLow) == 0;
    const bool low = (bank0(tx::kClockPll) & (tx::kClockPllHigh | tx::kClockPllLow)) == tx::kClockPllLow &&
                     (bank0(tx::kDataPll) & tx::kDataPllBandMask) == tx::kDataPllLow &&
                     (bank0(tx::kRange) & tx::kRangeLow) != 0;
    return (high && input_.pixelClock > 0.99 * tx::kHighBandFrom) ||
           (low && input_.pixelClock < 1.01 * tx::kHighBandFrom);
}

std::string_view Transmitter::darkReason() const {
    if (!powered()) {
        return "the transmitter is powered down";
    }
    if ((bank0(tx::kBank) & tx::kBankClockGates) != 0) {
        return "the transmitter's function clocks are gated";
    }
    if ((bank0(tx::kReset) & tx::kResetVideo) != 0 || (bank0(tx::kDriver) & tx::kDriverReset) != 0) {
        return "the transmitter's video path is held in reset";
    }
    if ((bank0(tx::kAvMute) & 1) != 0) {
        return "the transmitter is muted";
    }
    if ((bank0(tx::kInputMode) & 1) == 0) {
        return "the transmitter takes no video input";
    }
    if (!bandFits()) {
        return "the transmitter is set up for another pixel clock";
    }
    return {};
}

bool Transmitter::spdifLocked(usb::Time now) const {
    return spdifStart_ && spdifLockDelay_ && now >= *spdifStart_ + *spdifLockDelay_;
}

void Transmitter::checkVideoPath(usb::Time now) {
    if (!bandFits()) {
        violations_.add(
            now, ViolationKind::BadTransmitterSetup,
            fmt::format("unmuted with PLL registers 0x{:02X}, 0x{:02X} and range 0x{:02X} for a pixel "
                        "clock of {:.2f} MHz",
                        bank0(tx::kClockPll), bank0(tx::kDataPll), bank0(tx::kRange),
                        input_.pixelClock / 1e6));
    }
}

AviInfoFrame Transmitter::aviInfoFrame() const {
    AviInfoFrame frame;
    frame.bytes = {0x82, 0x02, 0x0D, bank1(tx::kAviChecksum)};
    for (std::uint8_t reg = tx::kAviData; reg < tx::kAviData + 14; reg++) {
        if (reg != tx::kAviChecksum) {
            frame.bytes.push_back(bank1(reg));
        }
    }
    frame.version = 2;
    frame.checksum = bank1(tx::kAviChecksum);
    frame.vic = frame.bytes[7] & 0x7F;
    const unsigned aspect = frame.bytes[5] >> 4 & 3;
    frame.aspect = aspect == 1 ? "4:3" : aspect == 2 ? "16:9" : "none";
    const unsigned colorimetry = frame.bytes[5] >> 6;
    frame.colorimetry = colorimetry == 1 ? "ITU-R 601" : colorimetry == 2 ? "ITU-R 709" : "none";
    return frame;
}

void Transmitter::checkAvi(usb::Time now) {
    aviChanged_ = false;
    const auto report = [&](std::string cause) {
        violations_.add(now, ViolationKind::BadInfoFrame, std::move(cause));
    };
    const AviInfoFrame frame = aviInfoFrame();
    if (sum(frame.bytes) != 0) {
        report(fmt::format("the AVI InfoFrame's checksum 0x{:02X} leaves a sum of 0x{:02X}", frame.checksum,
                           sum(frame.bytes)));
    }
    if (input_.width == 0) {
        return;
    }
    const auto isThisSize = [this](const auto& code) {
        return code.width == input_.width && code.height == input_.height;
    };
    const bool sizeHasCode = std::any_of(std::begin(kVideoCodes), std::end(kVideoCodes), isThisSize);
    const auto* const named = std::find_if(std::begin(kVideoCodes), std::end(kVideoCodes),
                                           [&](const auto& code) { return code.vic == frame.vic; });
    const bool known = named != std::end(kVideoCodes);
    if (frame.vic == 0 ? sizeHasCode : !known || !isThisSize(*named)) {
        report(fmt::format("the AVI InfoFrame has VIC {} for a picture of {}x{}", frame.vic, input_.width,
                           input_.height));
    } else if (known && (frame.bytes[5] >> 4 & 3u) != named->aspectCode) {
        report(fmt::format("the AVI InfoFrame has aspect {} for VIC {}", frame.aspect, frame.vic));
    }
}

AudioInfoFrame Transmitter::audioInfoFrame() const {
    AudioInfoFrame frame;
    frame.bytes = {0x84, 0x01, 0x0A, bank1(tx::kAudioChecksum)};
    for (std::uint8_t reg = tx::kAudioData; reg < tx::kAudioData + 5; reg++) {
        frame.bytes.push_back(bank1(reg));
    }
    frame.bytes.resize(14, 0);
    frame.checksum = bank1(tx::kAudioChecksum);
    frame.channels = (frame.bytes[4] & 7u) + 1;
    return frame;
}

void Transmitter::checkAudio(usb::Time now) {
    audioChanged_ = false;
    const AudioInfoFrame frame = audioInfoFrame();
    if (sum(frame.bytes) != 0) {
        violations_.add(now, ViolationKind::BadInfoFrame,
                        fmt::format("the audio InfoFrame's checksum 0x{:02X} leaves a sum of 0x{:02X}",
                                    frame.checksum, sum(frame.bytes)));
    }
}

TransmitterReport Transmitter::report(usb::Time now) const {
    TransmitterReport report;
    report.powered = powered();
    report.hdmi = (bank0(tx::kHdmiMode) & 1) != 0;
    report.avMute = (bank0(tx::kAvMute) & 1) != 0;
    report.videoMuted = !darkReason().empty();
    report.spdif = (bank0(tx::kAudioControl) & tx::kAudioSpdif) != 0;
    report.audioRunning = report.powered && report.hdmi && !report.avMute &&
                          (bank0(tx::kReset) & (tx::kResetAudio | tx::kResetAudioFifo)) == 0 &&
                          (bank0(tx::kAudioControl) & 0x0F) != 0 && (!report.spdif || spdifLocked(now));
    for (const auto& [code, rate] : kSamplingCodes) {
        if (code == (bank1(tx::kSamplingCode) & 0x0F)) {
            report.sampleRate = rate;
        }
    }
    // A DVI sink gets no data islands, so no InfoFrame reaches it.
    if (!report.powered || !report.hdmi) {
        return report;
    }
    if (bank0(tx::kAviPacket) == tx::kPacketSendRepeat && sum(aviInfoFrame().bytes) == 0) {
        report.avi = aviInfoFrame();
    }
    if (bank0(tx::kAudioPacket) == tx::kPacketSendRepeat && sum(audioInfoFrame().bytes) == 0) {
        report.audio = audioInfoFrame();
    }
    return report;
}

} // namespace model
