#include "tests/system/transcript.h"

#include "platform/usb/completion_hook.h"

#include <fmt/format.h>

#include <algorithm>

namespace system_test {

namespace {

constexpr std::uint16_t kSerialControl = 0x8020;
constexpr std::uint16_t kSerialReadData = 0x8024;
constexpr std::uint16_t kSerialWriteData = 0x8028;
constexpr std::uint32_t kSerialDone = 1u << 31;
constexpr unsigned kSerialPolls = 10;

std::string describe(const ControlTransfer& transfer) {
    return fmt::format("{} 0x{:04X} = 0x{:08X}", transfer.setup.request == 0x40 ? "read" : "write",
                       transfer.setup.index, transfer.word());
}

// Walks along a transcript; the first step that finds something else stays as the problem.
class Walk {
  public:
    Walk(std::span<const ControlTransfer> transfers, unsigned revision)
        : transfers_(transfers), revision_(revision) {}

    bool step(const Step& step) {
        switch (step.kind) {
        case Step::Kind::Read:
            return read(step.offset) != nullptr;
        case Step::Kind::Write:
            return write(step.offset, step.value);
        case Step::Kind::Set:
        case Step::Kind::Clear:
            return modify(step.offset, step.value, step.kind == Step::Kind::Set);
        case Step::Kind::SerialRead:
            return serialRead(step, true);
        case Step::Kind::SerialSilence:
            return serialRead(step, false);
        }
        return false;
    }

    bool atEnd() const { return next_ == transfers_.size(); }
    std::size_t position() const { return next_; }
    std::string found() const { return atEnd() ? "nothing more" : describe(transfers_[next_]); }

  private:
    const ControlTransfer* take(std::uint8_t request, std::uint16_t offset) {
        if (atEnd() || transfers_[next_].setup.request != request ||
            transfers_[next_].setup.index != offset) {
            return nullptr;
        }
        return &transfers_[next_++];
    }

    const ControlTransfer* read(std::uint16_t offset) { return take(0x40, offset); }

    bool write(std::uint16_t offset, std::uint32_t value) {
        if (atEnd() || transfers_[next_].word() != value) {
            return false;
        }
        return take(0x41, offset) != nullptr;
    }

    bool modify(std::uint16_t offset, std::uint32_t mask, bool toSet) {
        std::uint32_t done = 0;
        std::uint32_t before = 0;
        while (done != mask) {
            const ControlTransfer* old = read(offset);
            if (old == nullptr || atEnd()) {
                return false;
            }
            const std::uint32_t value = transfers_[next_].word();
            if (done != 0 && before != old->word()) {
                return false; // the last round did not take
            }
            // What this round may touch; it must touch something unless there is nothing left to change.
            const std::uint32_t target = toSet ? old->word() | mask : old->word() & ~mask;
            const std::uint32_t changed = value ^ old->word();
            if ((changed & ~mask) != 0 || ((value ^ target) != 0 && changed == 0)) {
                return false;
            }
            if (take(0x41, offset) == nullptr) {
                return false;
            }
            before = value;
            if (value == target) {
                done = mask;
            }
        }
        return true;
    }

    // Command, polls until the done bit (or until the last one), data.
    bool serialRead(const Step& step, bool answered) {
        const ControlTransfer* control = read(kSerialControl);
        if (control == nullptr) {
            return false;
        }
        const std::uint32_t kept = (control->word() & 0x7FFC0000) | (revision_ == 2 ? 1u << 28 : 0);
        if (!write(kSerialControl, kept | step.deviceOffset << 8 | step.device | 0x80)) {
            return false;
        }
        for (unsigned poll = 0; poll < kSerialPolls; poll++) {
            const ControlTransfer* status = read(kSerialControl);
            if (status == nullptr) {
                return false;
            }
            if ((status->word() & kSerialDone) != 0) {
                return answered && read(kSerialReadData) != nullptr;
            }
        }
        return !answered;
    }

    std::span<const ControlTransfer> transfers_;
    unsigned revision_;
    std::size_t next_ = 0;
};

std::string describe(const Step& step) {
    switch (step.kind) {
    case Step::Kind::Read:
        return fmt::format("read 0x{:04X}", step.offset);
    case Step::Kind::Write:
        return fmt::format("write 0x{:04X} = 0x{:08X}", step.offset, step.value);
    case Step::Kind::Set:
        return fmt::format("set 0x{:08X} in 0x{:04X}", step.value, step.offset);
    case Step::Kind::Clear:
        return fmt::format("clear 0x{:08X} in 0x{:04X}", step.value, step.offset);
    case Step::Kind::SerialRead:
        return fmt::format("I2C read of 0x{:02X} at 0x{:02X}", step.device, step.deviceOffset);
    case Step::Kind::SerialSilence:
        return fmt::format("I2C read of 0x{:02X} at 0x{:02X} that nobody answers", step.device,
                           step.deviceOffset);
    }
    return {};
}

} // namespace

std::uint32_t ControlTransfer::word() const {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < data.size() && i < 4; i++) {
        value |= std::uint32_t{data[i]} << 8 * i;
    }
    return value;
}

std::function<usb::Device&(usb::Device&)> Recorder::wrap(usb::Clock& clock) {
    clock_ = &clock;
    return [this](usb::Device& device) -> usb::Device& {
        inner_ = &device;
        return *this;
    };
}

void Recorder::submit(usb::Transfer& transfer) {
    if (transfer.type == usb::TransferType::Control) {
        std::size_t index;
        {
            const std::lock_guard guard(mutex_);
            index = transfers_.size();
            transfers_.push_back(
                {transfer.setup, {transfer.data.begin(), transfer.data.end()}, clock_->now()});
        }
        if (transfer.isIn()) {
            usb::hookCompletion(transfer, [this, index](usb::Transfer& done) {
                {
                    const std::lock_guard guard(mutex_);
                    if (index < transfers_.size()) {
                        transfers_[index].data.assign(done.data.begin(), done.data.begin() + done.actual);
                    }
                }
                usb::completeTransfer(done);
            });
        }
    }
    inner_->submit(transfer);
}

void Recorder::clear() {
    const std::lock_guard guard(mutex_);
    transfers_.clear();
}

std::vector<ControlTransfer> Recorder::transfers() const {
    const std::lock_guard guard(mutex_);
    return transfers_;
}

std::vector<ControlTransfer> Recorder::registerAccesses(bool serial) const {
    std::vector<ControlTransfer> list = transfers();
    std::erase_if(list, [serial](const ControlTransfer& transfer) {
        const std::uint16_t offset = transfer.setup.index;
        return !transfer.isVendor() || (!serial && (offset == kSerialControl || offset == kSerialReadData ||
                                                    offset == kSerialWriteData));
    });
    return list;
}

std::string differs(std::span<const ControlTransfer> transfers, std::span<const Step> table,
                    unsigned revision) {
    Walk walk(transfers, revision);
    for (std::size_t i = 0; i < table.size(); i++) {
        const std::size_t before = walk.position();
        if (!walk.step(table[i])) {
            return fmt::format("line {} of the table, \"{}\", at transfer {} (stopped at {}): found {}",
                               i + 1, describe(table[i]), before, walk.position(), walk.found());
        }
    }
    return walk.atEnd()
               ? std::string()
               : fmt::format("after the table's end (transfer {}): {}", walk.position(), walk.found());
}

} // namespace system_test
