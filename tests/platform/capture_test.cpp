// What the capture holds is judged by tshark, which knows nothing of this project.

#include "platform/usb/capture.h"
#include "tests/platform/run.h"
#include "tests/platform/scripted_device.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <numeric>
#include <sstream>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace {

using namespace kernel;
using namespace platform_test;
using usb::TransferType;

std::string temporaryFile() {
    return (std::filesystem::temp_directory_path() / fmt::format("capture_{}.pcapng", getpid())).string();
}

std::vector<std::string> linesOf(const std::string& command) {
    std::vector<std::string> lines;
    std::FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 65536> buffer{};
    std::string text;
    std::size_t count = 0;
    while (pipe != nullptr && (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) != 0) {
        text.append(buffer.data(), count);
    }
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << "tshark is needed: " << command;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// One line for each packet: malformed?, time, event, type, endpoint, status, length, length of the data,
// request of the setup packet, data bytes other than those of control transfers.
std::vector<std::string> decode(const std::string& file) {
    return linesOf("tshark -r " + file +
                   " -T fields -E separator=, -e _ws.malformed -e frame.time_epoch -e usb.urb_type"
                   " -e usb.transfer_type -e usb.endpoint_address -e usb.urb_status -e usb.urb_len"
                   " -e usb.data_len -e usb.setup.bRequest -e usb.capdata 2>/dev/null");
}

// A device with every kind of answer, and one transfer of each kind through a capture of it.
void recordOneOfEach(const std::string& file) {
    Scheduler scheduler(sim(Strategy::InOrder));
    scheduler.run([&] {
        ScriptedDevice device(usb::Speed::Super);
        device.onSubmit = [&](usb::Transfer& transfer) {
            scheduler.clock().schedule(now() + usb::kMillisecond, [&device, &transfer] {
                if (transfer.type == TransferType::Control && transfer.setup.request == 0x41) {
                    device.finish(transfer, usb::Status::Stalled, 0);
                } else if (transfer.isIn()) {
                    std::iota(transfer.data.begin(), transfer.data.end(), std::uint8_t{0x10});
                    device.finish(transfer, usb::Status::Success, 3);
                } else {
                    device.accept(transfer);
                }
            });
        };
        usb::Capture capture(device, scheduler.clock(), file);
        const auto send = [&](TransferType type, std::uint8_t endpoint, usb::SetupPacket setup,
                              std::size_t size) {
            std::vector<std::uint8_t> data(size, 0xA5);
            usb::Transfer transfer;
            transfer.type = type;
            transfer.endpoint = endpoint;
            transfer.setup = setup;
            transfer.data = data;
            bool done = false;
            const int channel = 0;
            transfer.complete = [&](usb::Transfer&) {
                done = true;
                wakeChannel(&channel);
            };
            capture.submit(transfer);
            waitUntil(&channel, {"test", nullptr, nullptr}, kForever, [&] { return done; });
        };
        send(TransferType::Control, 0, {0xC0, 0x40, 0, 0x0004, 4}, 4); // IN: three bytes come
        send(TransferType::Control, 0, {0x40, 0x41, 0, 0x0008, 2}, 2); // OUT: stalled
        send(TransferType::Bulk, 0x01, {}, 5);
        send(TransferType::Bulk, 0x01, {}, 0);
        send(TransferType::Interrupt, 0x83, {}, 8);
        send(TransferType::Bulk, 0x01, {}, 6'220'800);
        capture.finish();
        send(TransferType::Bulk, 0x01, {}, 5); // passes unrecorded
    });
}

TEST(Capture, TsharkReadsEveryEventWithItsData) {
    const std::string file = temporaryFile();
    recordOneOfEach(file);
    std::vector<std::string> lines = decode(file);
    const std::vector<std::string> expected = {
        ",0.000000000,'S',0x02,0x80,-115,4,0,64,",
        ",0.001000000,'C',0x02,0x80,0,3,3,,",
        ",0.001000000,'S',0x02,0x00,-115,2,2,65,",
        ",0.002000000,'C',0x02,0x00,-32,0,0,,",
        ",0.002000000,'S',0x03,0x01,-115,5,5,,a5a5a5a5a5",
        ",0.003000000,'C',0x03,0x01,0,5,0,,",
        ",0.003000000,'S',0x03,0x01,-115,0,0,,",
        ",0.004000000,'C',0x03,0x01,0,0,0,,",
        ",0.004000000,'S',0x01,0x83,-115,8,0,,",
        ",0.005000000,'C',0x01,0x83,0,3,3,,101112",
        ",0.005000000,'S',0x03,0x01,-115,6220800,6220800,,",
        ",0.006000000,'C',0x03,0x01,0,6220800,0,,",
    };
    ASSERT_EQ(lines.size(), expected.size());
    const std::string frame = lines[10].substr(expected[10].size());
    lines[10].resize(expected[10].size());
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(frame.size(), 2 * 6'220'800u);
    EXPECT_EQ(frame.find_first_not_of("a5"), std::string::npos);
    std::filesystem::remove(file);
}

TEST(Capture, AFileThatCannotBeWrittenIsAnError) {
    Scheduler scheduler(sim(Strategy::InOrder));
    ScriptedDevice device(usb::Speed::Super);
    EXPECT_THROW(usb::Capture(device, scheduler.clock(), "/nonexistent/capture.pcapng"), std::system_error);
    scheduler.run([&] {
        device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
        usb::Capture full(device, scheduler.clock(), "/dev/full");
        std::vector<std::uint8_t> data(100'000);
        usb::Transfer transfer;
        transfer.type = TransferType::Bulk;
        transfer.endpoint = 1;
        transfer.data = data;
        transfer.complete = [](usb::Transfer&) {};
        full.submit(transfer);
        EXPECT_THROW(full.finish(), std::system_error);
    });
}

} // namespace
