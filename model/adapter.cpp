#include "model/adapter.h"

#include <algorithm>
#include <deque>
#include <fmt/format.h>
#include <mutex>
#include <utility>

#include "model/board.h"
#include "model/registers.h"
#include "model/standard_requests.h"

namespace model {

namespace {

constexpr std::uint8_t kTypeMask = 0x60, kTypeStandard = 0x00;
constexpr std::uint8_t kRegisterReadType = 0xC0, kRegisterReadRequest = 0x40;
constexpr std::uint8_t kRegisterWriteType = 0x40, kRegisterWriteRequest = 0x41;
constexpr std::size_t kRegisterBytes = 4;

// The interrupt endpoint's own buffer: while the host does not read, more events than this are one.
constexpr std::size_t kReportsKept = 16;

std::string describe(const usb::SetupPacket& setup) {
    return fmt::format("setup packet {:02X} {:02X} {:04X} {:04X} {:04X}", setup.requestType, setup.request,
                       setup.value, setup.index, setup.length);
}

} // namespace

// Everything below is guarded by `mutex`. Work is done in two steps: under the mutex the state changes and
// the transfers that have ended are noted; outside it they complete, because a completion may submit again.
struct Adapter::State {
    struct Outcome {
        std::vector<usb::Transfer*> ended;
        bool screenChanged = false;
    };

    State(usb::Clock& hostClock, const AdapterOptions& chosen) : clock(hostClock), options(chosen) {}

    static void end(Outcome& outcome, usb::Transfer& transfer, usb::Status status, std::size_t actual = 0) {
        transfer.status = status;
        transfer.actual = static_cast<std::uint32_t>(actual);
        outcome.ended.push_back(&transfer);
    }

    // Runs `step` under the mutex with the time and the outcome to fill, then lets the outside world know.
    template <typename Step>
    void run(Step step) {
        const usb::Time now = clock.now();
        Outcome outcome;
        std::function<void()> listener;
        {
            const std::lock_guard guard(mutex);
            step(now, outcome);
            deliverReports(outcome);
            if (outcome.screenChanged) {
                listener = screenListener;
            }
        }
        for (usb::Transfer* transfer : outcome.ended) {
            transfer->complete(*transfer);
        }
        if (listener) {
            listener();
        }
    }

    void control(usb::Transfer& transfer, usb::Time now, Outcome& outcome);
    void accessRegister(usb::Transfer& transfer, usb::Time now, Outcome& outcome);
    void bulk(usb::Transfer& transfer, usb::Time now, Outcome& outcome);
    void interrupt(usb::Transfer& transfer, usb::Time now, Outcome& outcome);
    void deliverReports(Outcome& outcome);
    void violate(usb::Time now, ViolationKind kind, std::string cause) {
        board.violations.add(now, kind, std::move(cause));
    }

    usb::Clock& clock;
    const AdapterOptions options;

    mutable std::mutex mutex;
    StandardRequests standard{options};
    Board board{options};
    bool gone = false;
    bool controlDeaf = false;
    bool stallNextControl = false;
    std::vector<usb::Transfer*> unanswered;    // control transfers to a deaf adapter
    std::deque<usb::Transfer*> interruptReads; // waiting for a report
    std::deque<std::uint8_t> reports;          // waiting for a read
    std::function<void()> screenListener;
};

// Control transfers.

void Adapter::State::control(usb::Transfer& transfer, usb::Time now, Outcome& outcome) {
    board.statistics.controlTransfers++;
    if (controlDeaf) {
        unanswered.push_back(&transfer);
        return;
    }
    if (std::exchange(stallNextControl, false)) {
        return end(outcome, transfer, usb::Status::Stalled);
    }
    const usb::SetupPacket& setup = transfer.setup;
    if ((setup.requestType & kTypeMask) != kTypeStandard) {
        return accessRegister(transfer, now, outcome);
    }

    const auto answer = standard.answer(setup);
    if (standard.takePipeReset()) {
        board.restartFraming();
    }
    if (!answer) {
        // Hosts probe for descriptors that a device need not have; every other refusal is the host's mistake.
        constexpr std::uint8_t kGetDescriptor = 6;
        if (setup.request != kGetDescriptor) {
            violate(now, ViolationKind::BadRequest,
                    describe(setup) + " names what this adapter does not have");
        }
        return end(outcome, transfer, usb::Status::Stalled);
    }
    if (!transfer.isIn()) {
        return end(outcome, transfer, usb::Status::Success, transfer.data.size());
    }
    const std::size_t count = std::min({answer->size(), std::size_t{setup.length}, transfer.data.size()});
    std::copy_n(answer->begin(), count, transfer.data.begin());
    end(outcome, transfer, usb::Status::Success, count);
}

void Adapter::State::accessRegister(usb::Transfer& transfer, usb::Time now, Outcome& outcome) {
    const usb::SetupPacket& setup = transfer.setup;
    const auto refuse = [&](ViolationKind kind, std::string_view why) {
        violate(now, kind, fmt::format("{}: {}", describe(setup), why));
        end(outcome, transfer, usb::Status::Stalled);
    };
    if (setup.request != kRegisterReadRequest && setup.request != kRegisterWriteRequest) {
        return refuse(ViolationKind::BadRequest, "no such vendor request");
    }
    const bool read = setup.request == kRegisterReadRequest;
    if (setup.requestType != (read ? kRegisterReadType : kRegisterWriteType)) {
        return refuse(ViolationKind::BadRequest, "wrong direction, type or recipient");
    }
    if (setup.value != 0 || setup.length != kRegisterBytes || transfer.data.size() != kRegisterBytes) {
        return refuse(ViolationKind::BadRequest, "a register access has value 0 and 4 bytes of data");
    }
    if (!standard.configured()) {
        return refuse(ViolationKind::NotConfigured, "register access before SET_CONFIGURATION");
    }
    if (read) {
        const std::uint32_t value = board.readRegister(setup.index, now);
        for (unsigned i = 0; i < kRegisterBytes; i++) {
            transfer.data[i] = static_cast<std::uint8_t>(value >> 8 * i);
        }
    } else {
        std::uint32_t value = 0;
        for (unsigned i = 0; i < kRegisterBytes; i++) {
            value |= static_cast<std::uint32_t>(transfer.data[i]) << 8 * i;
        }
        board.writeRegister(setup.index, value, now);
    }
    end(outcome, transfer, usb::Status::Success, kRegisterBytes);
}

// Frames and reports.

void Adapter::State::bulk(usb::Transfer& transfer, usb::Time now, Outcome& outcome) {
    if (transfer.endpoint != kBulkOutEndpoint || !standard.configured()) {
        violate(now, ViolationKind::BadRequest,
                fmt::format("bulk transfer to endpoint 0x{:02X}, which is not there", transfer.endpoint));
        return end(outcome, transfer, usb::Status::Error);
    }
    if (standard.halted(kBulkOutEndpoint)) {
        return end(outcome, transfer, usb::Status::Stalled);
    }
    outcome.screenChanged = board.receive(transfer.data, now);
    end(outcome, transfer, usb::Status::Success, transfer.data.size());
}

void Adapter::State::interrupt(usb::Transfer& transfer, usb::Time now, Outcome& outcome) {
    if (transfer.endpoint != kInterruptInEndpoint || !standard.configured()) {
        violate(
            now, ViolationKind::BadRequest,
            fmt::format("interrupt transfer to endpoint 0x{:02X}, which is not there", transfer.endpoint));
        return end(outcome, transfer, usb::Status::Error);
    }
    if (standard.halted(kInterruptInEndpoint)) {
        return end(outcome, transfer, usb::Status::Stalled);
    }
    interruptReads.push_back(&transfer);
}

void Adapter::State::deliverReports(Outcome& outcome) {
    for (const std::uint8_t report : board.takeReports()) {
        if (reports.size() < kReportsKept) {
            reports.push_back(report);
        }
    }
    while (!gone && !reports.empty() && !interruptReads.empty()) {
        usb::Transfer& read = *interruptReads.front();
        interruptReads.pop_front();
        const std::size_t count = std::min<std::size_t>(1, read.data.size());
        if (count == 1) {
            read.data[0] = reports.front();
        }
        reports.pop_front();
        board.statistics.interruptReports++;
        end(outcome, read, usb::Status::Success, count);
    }
}

// The device.

Adapter::Adapter(usb::Clock& clock, const AdapterOptions& options)
    : state_(std::make_shared<State>(clock, options)) {}

Adapter::~Adapter() {
    disconnect();
}

usb::Speed Adapter::speed() const {
    return state_->options.link;
}

const AdapterOptions& Adapter::options() const {
    return state_->options;
}

void Adapter::submit(usb::Transfer& transfer) {
    state_->run([&](usb::Time now, State::Outcome& outcome) {
        transfer.actual = 0;
        if (state_->gone) {
            return State::end(outcome, transfer, usb::Status::Gone);
        }
        switch (transfer.type) {
        case usb::TransferType::Control:
            return state_->control(transfer, now, outcome);
        case usb::TransferType::Bulk:
            return state_->bulk(transfer, now, outcome);
        case usb::TransferType::Interrupt:
            return state_->interrupt(transfer, now, outcome);
        }
    });
}

void Adapter::cancel(usb::Transfer& transfer) {
    state_->run([&](usb::Time, State::Outcome& outcome) {
        if (std::erase(state_->unanswered, &transfer) + std::erase(state_->interruptReads, &transfer) > 0) {
            State::end(outcome, transfer, usb::Status::Cancelled);
        }
    });
}

void Adapter::disconnect() {
    state_->run([&](usb::Time, State::Outcome& outcome) {
        state_->gone = true;
        for (usb::Transfer* transfer : std::exchange(state_->unanswered, {})) {
            State::end(outcome, *transfer, usb::Status::Gone);
        }
        for (usb::Transfer* transfer : std::exchange(state_->interruptReads, {})) {
            State::end(outcome, *transfer, usb::Status::Gone);
        }
    });
}

// The monitor.

void Adapter::attachMonitor(std::span<const std::uint8_t> edid) {
    state_->run([&](usb::Time, State::Outcome&) { state_->board.attachMonitor(edid); });
}

void Adapter::detachMonitor() {
    state_->run([&](usb::Time, State::Outcome&) { state_->board.detachMonitor(); });
}

void Adapter::pulseHotPlug(usb::Time away) {
    std::vector<std::uint8_t> edid;
    usb::Time back = 0;
    state_->run([&](usb::Time now, State::Outcome&) {
        edid = state_->board.ddc.edid();
        state_->board.detachMonitor();
        back = now + away;
    });
    state_->clock.schedule(back, [weak = std::weak_ptr(state_), edid = std::move(edid)] {
        if (const auto state = weak.lock()) {
            state->run([&](usb::Time, State::Outcome&) {
                if (!state->gone && !state->board.ddc.attached()) {
                    state->board.attachMonitor(edid);
                }
            });
        }
    });
}

// Faults.

void Adapter::reportFrameError() {
    state_->run([&](usb::Time, State::Outcome&) { state_->board.reportFrameError(); });
}

void Adapter::dropNextFrame() {
    const std::lock_guard guard(state_->mutex);
    state_->board.dropNextFrame();
}

void Adapter::stall(std::uint8_t endpoint) {
    state_->run([&](usb::Time, State::Outcome& outcome) {
        if (endpoint == kControlEndpoint) {
            state_->stallNextControl = true;
            return;
        }
        state_->standard.halt(endpoint);
        if (endpoint == kInterruptInEndpoint) {
            for (usb::Transfer* transfer : std::exchange(state_->interruptReads, {})) {
                State::end(outcome, *transfer, usb::Status::Stalled);
            }
        }
    });
}

void Adapter::setDeaf(Part part, bool deaf) {
    const std::lock_guard guard(state_->mutex);
    switch (part) {
    case Part::Control:
        state_->controlDeaf = deaf;
        break;
    case Part::SerialMaster:
        state_->board.serial.setDeaf(deaf);
        break;
    case Part::Transmitter:
        if (state_->board.transmitter) {
            state_->board.transmitter->setDeaf(deaf);
        }
        break;
    }
}

void Adapter::setTransmitterFault(TransmitterFault fault) {
    const std::lock_guard guard(state_->mutex);
    if (state_->board.transmitter) {
        state_->board.transmitter->setFault(fault);
    }
}

void Adapter::setDdcFault(DdcFault fault) {
    const std::lock_guard guard(state_->mutex);
    state_->board.ddc.setFault(fault);
}

void Adapter::limitDdcAnswers(std::optional<std::uint32_t> bytes) {
    const std::lock_guard guard(state_->mutex);
    state_->board.ddc.limitAnswers(bytes);
}

void Adapter::setSpdifLock(std::optional<usb::Time> delay) {
    const std::lock_guard guard(state_->mutex);
    if (state_->board.transmitter) {
        state_->board.transmitter->setSpdifLock(delay);
    }
}

// The memories.

namespace {
MemoryCells& cellsOf(Board& board, Memory which) {
    return which == Memory::Eeprom ? board.eeprom.cells : board.flash.cells;
}
} // namespace

std::vector<std::uint8_t> Adapter::memory(Memory which) const {
    const std::lock_guard guard(state_->mutex);
    return cellsOf(state_->board, which).contents();
}

void Adapter::loadMemory(Memory which, std::span<const std::uint8_t> contents) {
    const std::lock_guard guard(state_->mutex);
    cellsOf(state_->board, which).load(contents);
}

void Adapter::corruptWrites(Memory which, std::uint32_t address, unsigned times) {
    const std::lock_guard guard(state_->mutex);
    cellsOf(state_->board, which).corruptWrites(address, times);
}

void Adapter::refuseWrites(Memory which, bool refuse) {
    const std::lock_guard guard(state_->mutex);
    cellsOf(state_->board, which).refuseWrites(refuse);
}

// The screen.

std::optional<Picture> Adapter::picture() const {
    const std::lock_guard guard(state_->mutex);
    if (!state_->board.darkReason().empty()) {
        return std::nullopt;
    }
    return state_->board.picture();
}

std::string Adapter::darkReason() const {
    const std::lock_guard guard(state_->mutex);
    return std::string(state_->board.darkReason());
}

std::optional<RawFrame> Adapter::rawFrame() const {
    const std::lock_guard guard(state_->mutex);
    if (!state_->board.darkReason().empty()) {
        return std::nullopt;
    }
    return state_->board.frameMemory().frame();
}

std::uint64_t Adapter::rawChecksum() const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.darkReason().empty() ? state_->board.frameMemory().checksum() : 0;
}

std::optional<OutputMode> Adapter::outputMode() const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.outputMode();
}

std::optional<TransmitterReport> Adapter::transmitter() const {
    const usb::Time now = state_->clock.now();
    const std::lock_guard guard(state_->mutex);
    if (!state_->board.transmitter) {
        return std::nullopt;
    }
    return state_->board.transmitter->report(now);
}

void Adapter::setScreenListener(std::function<void()> listener) {
    const std::lock_guard guard(state_->mutex);
    state_->screenListener = std::move(listener);
}

// What has happened.

Statistics Adapter::statistics() const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.statistics;
}

std::vector<Violation> Adapter::violations() const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.violations.list();
}

std::uint64_t Adapter::violationCount() const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.violations.total();
}

void Adapter::clearViolations() {
    const std::lock_guard guard(state_->mutex);
    state_->board.violations.clear();
}

std::uint32_t Adapter::peekRegister(std::uint16_t offset) const {
    const usb::Time now = state_->clock.now();
    const std::lock_guard guard(state_->mutex);
    return state_->board.peekRegister(offset, now);
}

std::uint8_t Adapter::peekTransmitter(unsigned bank, std::uint8_t reg) const {
    const std::lock_guard guard(state_->mutex);
    return state_->board.transmitter ? state_->board.transmitter->peek(bank, reg) : 0;
}

} // namespace model
