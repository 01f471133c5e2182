// Keeps the worked trace of docs/protocol.md true: what stands there is what goes over the wire.
#include "tests/system/rig.h"

#include "platform/usb/completion_hook.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <iostream>
#include <mutex>

namespace system_test {
namespace {

using Lines = std::vector<std::string>;

constexpr std::uint8_t kRead = 0x40;
constexpr std::uint8_t kWrite = 0x41;
constexpr std::uint16_t kSerialControl = 0x8020;
constexpr std::uint16_t kSerialReadData = 0x8024;

struct Event {
    usb::Time time = 0;
    usb::TransferType type = usb::TransferType::Control;
    std::uint8_t endpoint = 0;
    usb::SetupPacket setup;
    std::vector<std::uint8_t> data; // OUT as sent, IN as answered

    bool isAccess(std::uint8_t request, std::uint16_t offset) const {
        return type == usb::TransferType::Control && setup.request == request && setup.index == offset;
    }
    std::uint32_t word() const {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < data.size() && i < 4; i++) {
            value |= std::uint32_t{data[i]} << 8 * i;
        }
        return value;
    }
};

// Notes control transfers and frames when they arrive at the adapter, reports when they leave it.
class Tap final : public usb::Device {
  public:
    usb::Device& wrap(usb::Device& device, usb::Clock& clock) {
        inner_ = &device;
        clock_ = &clock;
        return *this;
    }

    usb::Speed speed() const override { return inner_->speed(); }
    void cancel(usb::Transfer& transfer) override { inner_->cancel(transfer); }
    void disconnect() override { inner_->disconnect(); }

    void submit(usb::Transfer& transfer) override {
        const bool isReport = transfer.type == usb::TransferType::Interrupt;
        const std::size_t index = isReport ? 0 : note(transfer, transfer.data);
        if (transfer.isIn()) {
            usb::hookCompletion(transfer, [this, isReport, index](usb::Transfer& done) {
                const std::span<const std::uint8_t> answer(done.data.data(), done.actual);
                if (!isReport) {
                    const std::lock_guard guard(mutex_);
                    events_[index].data.assign(answer.begin(), answer.end());
                } else if (done.status == usb::Status::Success) {
                    note(done, answer);
                }
                usb::completeTransfer(done);
            });
        }
        inner_->submit(transfer);
    }

    std::vector<Event> events() const {
        const std::lock_guard guard(mutex_);
        return events_;
    }

  private:
    std::size_t note(const usb::Transfer& transfer, std::span<const std::uint8_t> data) {
        const std::lock_guard guard(mutex_);
        events_.push_back(
            {clock_->now(), transfer.type, transfer.endpoint, transfer.setup, {data.begin(), data.end()}});
        return events_.size() - 1;
    }

    usb::Device* inner_ = nullptr;
    usb::Clock* clock_ = nullptr;
    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

std::string setupText(const usb::SetupPacket& setup) {
    return fmt::format("{:02X} {:02X} {:02X} {:02X} {:02X} {:02X} {:02X} {:02X}", setup.requestType,
                       setup.request, setup.value & 0xFF, setup.value >> 8, setup.index & 0xFF,
                       setup.index >> 8, setup.length & 0xFF, setup.length >> 8);
}

std::string dataText(const Event& event) {
    if (event.data.size() > 4 || event.type == usb::TransferType::Bulk) {
        return fmt::format("{} bytes", event.data.size());
    }
    std::string text;
    for (const std::uint8_t byte : event.data) {
        text += fmt::format("{}{:02X}", text.empty() ? "" : " ", byte);
    }
    return text;
}

// Milliseconds since the event before, endpoint, setup packet, data.
std::string lineOf(const Event& event, const Event* before) {
    const usb::Time gap = before == nullptr ? 0 : (event.time - before->time) / kMillisecond;
    const bool control = event.type == usb::TransferType::Control;
    std::string line =
        fmt::format("{:>4}  {:02X}  {}  {}", gap == 0 ? "" : std::to_string(gap), event.endpoint,
                    control ? setupText(event.setup) : std::string(23, ' '), dataText(event));
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

// Four transfers that read a word over the serial master; its command, or 0 when they are something else.
constexpr std::size_t kSerialReadLength = 4;
std::uint32_t serialReadCommand(std::span<const Event> events) {
    const bool is = events.size() >= kSerialReadLength && events[0].isAccess(kRead, kSerialControl) &&
                    events[1].isAccess(kWrite, kSerialControl) && events[2].isAccess(kRead, kSerialControl) &&
                    events[3].isAccess(kRead, kSerialReadData);
    return is ? events[1].word() : 0;
}

// How many serial reads follow one another that each read the four bytes behind those of the one before.
std::size_t countSerialReads(std::span<const Event> events) {
    constexpr std::uint32_t kNextWord = 4 << 8;
    const std::uint32_t first = serialReadCommand(events);
    std::size_t count = first == 0 ? 0 : 1;
    while (count > 0 && kSerialReadLength * count < events.size() &&
           serialReadCommand(events.subspan(kSerialReadLength * count)) == first + count * kNextWord) {
        count++;
    }
    return count;
}

// One phase of the trace. Repetitions are told, not listed.
Lines linesOf(std::span<const Event> events) {
    Lines lines;
    const Event* before = nullptr;
    for (std::size_t at = 0; at < events.size();) {
        const std::size_t reads = countSerialReads(events.subspan(at));
        const std::size_t listed = reads > 0 ? kSerialReadLength : 1;
        for (const Event& event : events.subspan(at, listed)) {
            lines.push_back(lineOf(event, before));
            before = &event;
        }
        if (reads > 1) {
            at += kSerialReadLength * reads;
            before = &events[at - 1];
            lines.push_back(fmt::format("      ... {} more reads like these four, up to command {:08X}",
                                        reads - 1, events[at - 3].word()));
            continue;
        }
        at += listed;
        std::size_t times = 1;
        for (; at < events.size() && lineOf(events[at], before) == lines.back(); at++) {
            before = &events[at];
            times++;
        }
        if (times > 1) {
            lines.back() += fmt::format("  {} times", times);
        }
    }
    return lines;
}

// The block after the line "```trace", without comments.
Lines documentedTrace() {
    std::ifstream in(TEST_DATA "/../../docs/protocol.md");
    Lines lines;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("```")) {
            inside = line == "```trace";
        } else if (inside) {
            line.erase(std::min(line.find('#'), line.size()));
            line.erase(line.find_last_not_of(' ') + 1);
            lines.push_back(line);
        }
    }
    return lines;
}

Lines recordedTrace() {
    Tap tap;
    Lines trace;
    std::size_t seen = 0;
    const auto endPhase = [&](const std::string& name, std::size_t events) {
        const std::vector<Event> all = tap.events();
        trace.push_back(name);
        const Lines lines = linesOf(std::span(all).subspan(seen).first(std::min(events, all.size() - seen)));
        trace.insert(trace.end(), lines.begin(), lines.end());
        seen = all.size();
    };
    constexpr std::size_t kAll = SIZE_MAX;
    constexpr std::size_t kFrame = 2; // the frame and its zero-length transfer
    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter();
        plug.inFront = [&](usb::Device& device) -> usb::Device& {
            return tap.wrap(device, session.machine().clock());
        };
        session.plug(plug);
        endPhase("plug", kAll);
        session.attachMonitor(rig::builtinEdid());
        session.openClient();
        endPhase("attach", kAll);
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        endPhase("display on", kAll);
        session.present(kDesktop, pattern("bars", kWidth, kHeight));
        expectPicture(session);
        endPhase("frame", kFrame);
    });
    return trace;
}

TEST(ProtocolTrace, StandsInTheDocumentAsItGoesOverTheWire) {
    const Lines documented = documentedTrace();
    const Lines recorded = recordedTrace();
    if (documented == recorded) {
        return;
    }
    const auto [was, is] = std::ranges::mismatch(documented, recorded);
    ADD_FAILURE() << "the trace in docs/protocol.md differs from line " << was - documented.begin() + 1
                  << " on:\n  documented: " << (was == documented.end() ? "(its end)" : *was)
                  << "\n  recorded:   " << (is == recorded.end() ? "(its end)" : *is)
                  << "\nThe whole recorded trace:";
    for (const std::string& line : recorded) {
        std::cout << line << "\n";
    }
}

} // namespace
} // namespace system_test
