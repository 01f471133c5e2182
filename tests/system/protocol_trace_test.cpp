// Compares the trace that docs/protocol.md explains with what a session records.
#include "tests/system/rig.h"
#include "tests/system/transcript.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <iostream>

namespace system_test {
namespace {

using Lines = std::vector<std::string>;

std::string setupText(const usb::SetupPacket& setup) {
    return fmt::format("{:02X} {:02X} {:02X} {:02X} {:02X} {:02X} {:02X} {:02X}", setup.requestType,
                       setup.request, setup.value & 0xFF, setup.value >> 8, setup.index & 0xFF,
                       setup.index >> 8, setup.length & 0xFF, setup.length >> 8);
}

std::string dataText(const Transfer& event) {
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
std::string lineOf(const Transfer& event, const Transfer* before) {
    const usb::Time gap = before == nullptr ? 0 : (event.time - before->time) / kMillisecond;
    const bool control = event.type == usb::TransferType::Control;
    std::string line =
        fmt::format("{:>4}  {:02X}  {}  {}", gap == 0 ? "" : std::to_string(gap), event.endpoint,
                    control ? setupText(event.setup) : std::string(23, ' '), dataText(event));
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

// The command of four transfers that read a word through the serial master; 0 when they are something else.
constexpr std::size_t kSerialReadLength = 4;
std::uint32_t serialReadCommand(std::span<const Transfer> events) {
    const bool is = events.size() >= kSerialReadLength && events[0].isAccess(kReadRegister, kSerialControl) &&
                    events[1].isAccess(kWriteRegister, kSerialControl) &&
                    events[2].isAccess(kReadRegister, kSerialControl) &&
                    events[3].isAccess(kReadRegister, kSerialReadData);
    return is ? events[1].word() : 0;
}

// The number of consecutive serial reads, each of the four bytes that follow those of the read before.
std::size_t countSerialReads(std::span<const Transfer> events) {
    constexpr std::uint32_t kNextWord = 4 << 8;
    const std::uint32_t first = serialReadCommand(events);
    std::size_t count = first == 0 ? 0 : 1;
    while (count > 0 && kSerialReadLength * count < events.size() &&
           serialReadCommand(events.subspan(kSerialReadLength * count)) == first + count * kNextWord) {
        count++;
    }
    return count;
}

// One phase of the trace. Repetitions are counted, not listed.
Lines linesOf(std::span<const Transfer> events) {
    Lines lines;
    const Transfer* before = nullptr;
    for (std::size_t at = 0; at < events.size();) {
        const std::size_t reads = countSerialReads(events.subspan(at));
        const std::size_t listed = reads > 0 ? kSerialReadLength : 1;
        for (const Transfer& event : events.subspan(at, listed)) {
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
    Recorder recorder;
    Lines trace;
    std::size_t seen = 0;
    const auto endPhase = [&](const std::string& name, std::size_t events) {
        const std::vector<Transfer> all = recorder.transfers();
        trace.push_back(name);
        const Lines lines = linesOf(std::span(all).subspan(seen).first(std::min(events, all.size() - seen)));
        trace.insert(trace.end(), lines.begin(), lines.end());
        seen = all.size();
    };
    constexpr std::size_t kAll = SIZE_MAX;
    constexpr std::size_t kFrame = 2; // the frame and its zero-length transfer
    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        endPhase("plug", kAll);
        session.attachMonitor(rig::builtinEdid());
        session.openClient();
        endPhase("attach", kAll);
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        endPhase("display on", kAll);
        show(session, bars());
        endPhase("frame", kFrame);
    });
    return trace;
}

TEST(ProtocolTrace, MatchesTheDocument) {
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
