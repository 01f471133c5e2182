#include "model/ddc.h"

#include "model/registers.h"

namespace model {

namespace {
constexpr unsigned kSegmentBytes = 256;
constexpr std::size_t kBlockBytes = 128;
} // namespace

void DdcBus::attach(std::span<const std::uint8_t> edid) {
    attached_ = true;
    edid_.assign(edid.begin(), edid.end());
    hung_ = false;
}

void DdcBus::detach() {
    attached_ = false;
    edid_.clear();
    hung_ = false;
}

void DdcBus::recover() {
    if (fault_ == DdcFault::Busy) {
        fault_ = DdcFault::None;
    }
    hung_ = false;
}

I2cAnswer::Kind DdcBus::selectSegment(std::uint8_t segment) const {
    if (held()) {
        return I2cAnswer::Kind::Hung;
    }
    if (!hasEdid() || (segment > 0 && edid_.size() <= 2 * kBlockBytes)) {
        return I2cAnswer::Kind::NotAcknowledged;
    }
    return I2cAnswer::Kind::Completed;
}

DdcBus::ReadResult DdcBus::read(std::uint8_t segment, unsigned offset, std::span<std::uint8_t> out) {
    if (const I2cAnswer::Kind kind = selectSegment(segment); kind != I2cAnswer::Kind::Completed) {
        return {kind, 0};
    }
    for (unsigned i = 0; i < out.size(); i++) {
        if (answersLeft_) {
            if (*answersLeft_ == 0) {
                hung_ = true;
                return {I2cAnswer::Kind::Hung, i};
            }
            --*answersLeft_;
        }
        const std::size_t at = segment * kSegmentBytes + (offset + i) % kSegmentBytes;
        out[i] = at < edid_.size() ? edid_[at] : 0xFF;
    }
    return {I2cAnswer::Kind::Completed, static_cast<unsigned>(out.size())};
}

I2cAnswer DdcPort::read(std::uint8_t address, std::uint8_t offset, usb::Time) {
    I2cAnswer answer;
    if (address == i2c::kSegmentPointer) {
        // The pointer is write only: its "register offset" is the new segment, and no device drives the data
        // that the master then clocks in.
        answer.kind = bus_.selectSegment(offset);
        answer.data = 0xFFFFFFFF;
        if (answer.kind == I2cAnswer::Kind::Completed) {
            segment_ = offset;
        }
    } else {
        std::uint8_t bytes[4] = {};
        answer.kind = bus_.read(segment_, offset, bytes).kind;
        answer.data = static_cast<std::uint32_t>(bytes[0] | bytes[1] << 8 | bytes[2] << 16) |
                      static_cast<std::uint32_t>(bytes[3]) << 24;
    }
    // After its time-out the master clocks the lines free (I2C bus, "bus clear").
    if (answer.kind == I2cAnswer::Kind::Hung) {
        bus_.recover();
    }
    return answer;
}

I2cAnswer DdcPort::write(std::uint8_t, std::uint8_t, std::uint32_t, usb::Time) {
    return {}; // a monitor's EDID cannot be written over its cable
}

} // namespace model
