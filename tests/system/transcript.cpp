#include "tests/system/transcript.h"

#include "platform/usb/completion_hook.h"

#include <fmt/format.h>

#include <algorithm>

namespace system_test {

namespace {

constexpr std::uint16_t kSerialWriteData = 0x8028;
constexpr std::uint32_t kSerialDone = 1u << 31;
constexpr unsigned kSerialPolls = 10;

std::string describe(const Transfer& transfer) {
    return fmt::format("{} 0x{:04X} = 0x{:08X}", transfer.setup.request == kReadRegister ? "read" : "write",
                       transfer.setup.index, transfer.word());
}

// Follows a recording step by step, up to the first step that finds something else.
class Walk {
  public:
    Walk(std::span<const Transfer> transfers, unsigned revision)
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
        case Step::Kind::SerialTimeout:
            return serialRead(step, false);
        }
        return false;
    }

    bool atEnd() const { return next_ == transfers_.size(); }
    std::size_t position() const { return next_; }
    std::string found() const { return atEnd() ? "nothing more" : describe(transfers_[next_]); }

  private:
    const Transfer* take(std::uint8_t request, std::uint16_t offset) {
        return !atEnd() && transfers_[next_].isAccess(request, offset) ? &transfers_[next_++] : nullptr;
    }

    const Transfer* read(std::uint16_t offset) { return take(kReadRegister, offset); }

    bool write(std::uint16_t offset, std::uint32_t value) {
        return !atEnd() && transfers_[next_].word() == value && take(kWriteRegister, offset) != nullptr;
    }

    bool modify(std::uint16_t offset, std::uint32_t mask, bool toSet) {
        const Transfer* written = nullptr;
        for (;;) {
            const Transfer* old = read(offset);
            if (old == nullptr || (written != nullptr && written->word() != old->word())) {
                return false;
            }
            written = take(kWriteRegister, offset);
            if (written == nullptr) {
                return false;
            }
            if (written->word() == (toSet ? old->word() | mask : old->word() & ~mask)) {
                return true;
            }
            // Each round changes at least one bit of the mask and no other bit.
            const std::uint32_t changed = written->word() ^ old->word();
            if (changed == 0 || (changed & ~mask) != 0) {
                return false;
            }
        }
    }

    // The command, polls until one finds the done bit, and the data.
    bool serialRead(const Step& step, bool answered) {
        const Transfer* control = read(kSerialControl);
        const std::uint32_t revisionBit = revision_ == 2 ? 1u << 28 : 0;
        if (control == nullptr || !write(kSerialControl, (control->word() & 0x7FFC0000) | revisionBit |
                                                             step.deviceOffset << 8 | step.device | 0x80)) {
            return false;
        }
        for (unsigned poll = 0; poll < kSerialPolls; poll++) {
            const Transfer* status = read(kSerialControl);
            if (status == nullptr) {
                return false;
            }
            if ((status->word() & kSerialDone) != 0) {
                return answered && read(kSerialReadData) != nullptr;
            }
        }
        return !answered;
    }

    std::span<const Transfer> transfers_;
    unsigned revision_;
    std::size_t next_ = 0;
};

std::string describe(const Step& step) {
    constexpr const char* kKinds[] = {"read", "write", "set", "clear", "serial read", "serial time-out"};
    return fmt::format("{} 0x{:04X} 0x{:08X} device 0x{:02X} at 0x{:02X}",
                       kKinds[static_cast<int>(step.kind)], step.offset, step.value, step.device,
                       step.deviceOffset);
}

} // namespace

std::uint32_t Transfer::word() const {
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

std::size_t Recorder::record(const usb::Transfer& transfer, std::span<const std::uint8_t> data) {
    const std::lock_guard guard(mutex_);
    transfers_.push_back(
        {transfer.type, transfer.endpoint, transfer.setup, {data.begin(), data.end()}, clock_->now()});
    return cleared_ + transfers_.size() - 1;
}

void Recorder::submit(usb::Transfer& transfer) {
    const bool isReport = transfer.type == usb::TransferType::Interrupt;
    const std::size_t number = isReport ? 0 : record(transfer, transfer.data);
    if (transfer.isIn()) {
        usb::hookCompletion(transfer, [this, isReport, number](usb::Transfer& done) {
            const std::span<const std::uint8_t> answer(done.data.data(), done.actual);
            if (!isReport) {
                const std::lock_guard guard(mutex_);
                if (number >= cleared_) {
                    transfers_[number - cleared_].data.assign(answer.begin(), answer.end());
                }
            } else if (done.status == usb::Status::Success) {
                record(done, answer);
            }
            usb::completeTransfer(done);
        });
    }
    inner_->submit(transfer);
}

void Recorder::clear() {
    const std::lock_guard guard(mutex_);
    cleared_ += transfers_.size();
    transfers_.clear();
}

std::vector<Transfer> Recorder::transfers() const {
    const std::lock_guard guard(mutex_);
    return transfers_;
}

std::vector<Transfer> Recorder::registerAccesses(bool serial) const {
    std::vector<Transfer> list = transfers();
    std::erase_if(list, [serial](const Transfer& transfer) {
        const std::uint16_t offset = transfer.setup.index;
        return !transfer.isVendor() || (!serial && (offset == kSerialControl || offset == kSerialReadData ||
                                                    offset == kSerialWriteData));
    });
    return list;
}

std::string differs(std::span<const Transfer> transfers, std::span<const Step> table, unsigned revision) {
    Walk walk(transfers, revision);
    for (std::size_t i = 0; i < table.size(); i++) {
        const std::size_t before = walk.position();
        if (!walk.step(table[i])) {
            return fmt::format("line {} of the table ({}) at transfer {} (stopped at {}): found {}", i + 1,
                               describe(table[i]), before, walk.position(), walk.found());
        }
    }
    return walk.atEnd()
               ? std::string()
               : fmt::format("after the table's end (transfer {}): {}", walk.position(), walk.found());
}

} // namespace system_test
