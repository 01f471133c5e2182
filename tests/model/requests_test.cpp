// What the adapter accepts over USB, and what it calls a violation.
#include <gtest/gtest.h>

#include "model/descriptors.h"
#include "tests/model/host.h"

namespace model::test {
namespace {

using Kinds = std::vector<ViolationKind>;

TEST(Requests, DescriptorsAreWellFormedOnBothLinks) {
    for (const usb::Speed link : {usb::Speed::High, usb::Speed::Super}) {
        AdapterOptions options;
        options.link = link;
        Host host(options, false);
        std::vector<std::uint8_t> device(18);
        ASSERT_EQ(host.control({0x80, 6, 0x0100, 0, 18}, &device), usb::Status::Success);
        EXPECT_EQ(device.size(), 18u);
        EXPECT_EQ(device[2] | device[3] << 8, link == usb::Speed::Super ? 0x0300 : 0x0210);

        // A short read gives a short answer; the whole one is as long as it says and its parts fill it
        // exactly.
        std::vector<std::uint8_t> head(9), whole(512);
        host.control({0x80, 6, 0x0200, 0, 9}, &head);
        ASSERT_EQ(head.size(), 9u);
        host.control({0x80, 6, 0x0200, 0, 512}, &whole);
        ASSERT_EQ(whole.size(), static_cast<std::size_t>(head[2] | head[3] << 8));
        std::size_t at = 0;
        unsigned interfaces = 0, endpoints = 0, companions = 0;
        for (; at < whole.size() && whole[at] != 0; at += whole[at]) {
            interfaces += whole[at + 1] == 4;
            companions += whole[at + 1] == 48;
            if (whole[at + 1] != 5) {
                continue;
            }
            endpoints++;
            const unsigned packet = whole[at + 4] | whole[at + 5] << 8;
            if (whole[at + 2] == kBulkOutEndpoint) {
                EXPECT_EQ(packet, link == usb::Speed::Super ? 1024u : 512u);
            }
        }
        EXPECT_EQ(at, whole.size());
        EXPECT_EQ(interfaces, head[4]);
        EXPECT_EQ(endpoints, 2u);
        EXPECT_EQ(companions, link == usb::Speed::Super ? 2u : 0u);
        EXPECT_EQ(host.control({0x80, 6, 0x0600, 0, 10}, &head), usb::Status::Stalled);
        EXPECT_EQ(host.takeViolationKinds(), Kinds{}) << "asking for an absent descriptor is no mistake";
    }
}

TEST(Requests, IdentityNamesTheRevision) {
    EXPECT_EQ(identityOf(1, Product::Main).bcdDevice, 0x0100);
    EXPECT_EQ(identityOf(2, Product::Alt).idProduct, identityOf(2, Product::Main).idProduct - 2);
    EXPECT_EQ(identityOf(3, Product::Main).bcdDevice, 0x0300);
    EXPECT_THROW(identityOf(1, Product::Partner), std::invalid_argument);
    EXPECT_THROW(identityOf(4, Product::Main), std::invalid_argument);
}

TEST(Requests, MistakesAreViolations) {
    const Mode& mode = modeOf(640, 480);
    struct Case {
        const char* what;
        std::function<void(Host&)> act;
        Kinds expected;
    };
    const auto setup = [](usb::SetupPacket packet, std::size_t bytes) {
        return [=](Host& host) {
            std::vector<std::uint8_t> data(bytes);
            EXPECT_EQ(host.control(packet, &data), usb::Status::Stalled);
        };
    };
    const Case cases[] = {
        {"unknown vendor request", setup({0xC0, 0x42, 0, 0x8000, 4}, 4), {ViolationKind::BadRequest}},
        {"read request as a write", setup({0x40, 0x40, 0, 0x8000, 4}, 4), {ViolationKind::BadRequest}},
        {"write request as a read", setup({0xC0, 0x41, 0, 0x8000, 4}, 4), {ViolationKind::BadRequest}},
        {"to the interface", setup({0xC1, 0x40, 0, 0x8000, 4}, 4), {ViolationKind::BadRequest}},
        {"with a value", setup({0xC0, 0x40, 1, 0x8000, 4}, 4), {ViolationKind::BadRequest}},
        {"with a short length", setup({0xC0, 0x40, 0, 0x8000, 2}, 2), {ViolationKind::BadRequest}},
        {"with less data than length", setup({0x40, 0x41, 0, 0x8004, 4}, 3), {ViolationKind::BadRequest}},
        {"configuration 7", setup({0x00, 9, 7, 0, 0}, 0), {ViolationKind::BadRequest}},
        {"alternate setting 1", setup({0x01, 11, 1, 1, 0}, 0), {ViolationKind::BadRequest}},
        {"interface 3", setup({0x01, 11, 0, 3, 0}, 0), {ViolationKind::BadRequest}},
        {"unconfigured",
         [](Host& host) {
             host.control({0x00, 9, 0, 0, 0});
             host.read(reg::kStatus);
             host.send({1, 2, 3});
         },
         {ViolationKind::NotConfigured, ViolationKind::BadRequest}},
        {"unknown register",
         [](Host& host) {
             EXPECT_EQ(host.read(0x8002), 0u);
             host.write(0x9000, 1);
         },
         {ViolationKind::UnknownRegister, ViolationKind::UnknownRegister}},
        {"data before any mode",
         [](Host& host) {
             Host fresh;
             fresh.send({0, 0, 0});
             EXPECT_EQ(fresh.takeViolationKinds(), Kinds{ViolationKind::UnexpectedData});
             (void)host;
         },
         {}},
        {"data between flush and release",
         [](Host& host) {
             host.displayOff();
             host.send({0, 0, 0});
         },
         {ViolationKind::UnexpectedData}},
        {"PLL word to a stopped PLL",
         [](Host& host) {
             host.clear(reg::kControl, reg::kControlPll);
             host.write(reg::kPll, 0x3f6119);
             EXPECT_EQ(host.read(reg::kPll), 0u);
         },
         {ViolationKind::BadClock}},
        {"frames without a clock",
         [&](Host& host) {
             host.clear(reg::kControl, reg::kControlPll);
             host.sendFrame(noise(pixels(mode) * 3, 1));
         },
         {ViolationKind::OutputWithoutClock, ViolationKind::OutputWithoutClock}},
        {"release without a clock",
         [](Host& host) {
             Host fresh;
             fresh.clear(reg::kOutput, reg::kOutputTimingHold);
             EXPECT_EQ(fresh.takeViolationKinds(), Kinds{ViolationKind::OutputWithoutClock});
             (void)host;
         },
         {}},
        {"another mode's PLL word, reported once",
         [&](Host& host) {
             host.write(reg::kPll, modeOf(1680, 1050).pll);
             host.sendFrame(noise(pixels(mode) * 3, 1));
             host.sendFrame(noise(pixels(mode) * 3, 2));
         },
         {ViolationKind::BadClock}},
        {"a PLL word that divides by 0",
         [&](Host& host) {
             host.write(reg::kPll, 0x3f6100);
             host.sendFrame(noise(pixels(mode) * 3, 1));
         },
         {ViolationKind::OutputWithoutClock, ViolationKind::OutputWithoutClock}},
        {"back porch below zero",
         [&](Host& host) {
             host.write(reg::kHorizontalSync, 96u << 16 | 96);
             host.sendFrame(noise(pixels(mode) * 3, 1));
         },
         {ViolationKind::BadTiming}},
        {"picture wider than its line",
         [&](Host& host) {
             host.write(reg::kHorizontalSize, 640u << 16 | 700);
             host.sendFrame(noise(pixels(mode) * 3, 1));
         },
         {ViolationKind::BadTiming}},
        {"two vertical starts",
         [&](Host& host) {
             host.write(reg::kVerticalSync, 0x1b2001c);
             host.sendFrame(noise(pixels(mode) * 3, 1));
         },
         {ViolationKind::BadTiming}},
        {"another serial command in mid-command",
         [](Host& host) {
             host.write(reg::kSerialControl, reg::kPowerStage2 | reg::kPowerStage1 | 0x00D0);
             host.write(reg::kSerialControl, reg::kPowerStage2 | reg::kPowerStage1 | 0x04D0);
         },
         {ViolationKind::SerialBusy}},
        {"serial command without power",
         [](Host& host) {
             host.write(reg::kSerialControl, reg::kPowerStage1 | 0x08D0);
             host.clock.advance(usb::kSecond);
             EXPECT_EQ(host.read(reg::kSerialControl) & reg::kSerialDone, 0u);
         },
         {ViolationKind::SerialUnpowered}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        Host host;
        host.switchOn();
        host.setMode(mode);
        ASSERT_EQ(host.takeViolations(), std::vector<std::string>{});
        test.act(host);
        EXPECT_EQ(host.takeViolationKinds(), test.expected);
    }
}

TEST(Requests, InterruptReportsWaitForReadsAndReadsForReports) {
    Host host;
    std::vector<usb::Status> ended;
    std::uint8_t byte = 0xEE;
    usb::Transfer read;
    read.type = usb::TransferType::Interrupt;
    read.endpoint = kInterruptInEndpoint;
    read.data = {&byte, 1};
    read.complete = [&](usb::Transfer& transfer) { ended.push_back(transfer.status); };

    host.adapter.submit(read);
    EXPECT_TRUE(ended.empty());
    host.adapter.attachMonitor(edidOf(1));
    EXPECT_EQ(ended, std::vector{usb::Status::Success});
    EXPECT_EQ(byte, kReportStatusChanged);
    EXPECT_EQ(read.actual, 1u);

    host.adapter.reportFrameError();
    host.adapter.submit(read);
    EXPECT_EQ(ended.size(), 2u);

    host.adapter.submit(read);
    host.adapter.cancel(read);
    host.adapter.cancel(read);
    EXPECT_EQ(ended.size(), 3u);
    EXPECT_EQ(ended.back(), usb::Status::Cancelled);

    host.adapter.submit(read);
    host.adapter.stall(kInterruptInEndpoint);
    EXPECT_EQ(ended.back(), usb::Status::Stalled);
    host.control({0x02, 1, 0, kInterruptInEndpoint, 0});
    host.adapter.submit(read);
    host.adapter.pulseHotPlug(50 * usb::kMillisecond);
    EXPECT_EQ(ended.back(), usb::Status::Success);
    EXPECT_EQ(host.read(reg::kStatus) & 1, 0u);
    host.clock.advance(50 * usb::kMillisecond);
    EXPECT_EQ(host.read(reg::kStatus) & 0x80000001, 0x80000001u);

    host.adapter.submit(read);
    host.adapter.submit(read); // the report of the monitor's return served the first one
    host.adapter.disconnect();
    EXPECT_EQ(ended.back(), usb::Status::Gone);
    EXPECT_EQ(host.send({1}), usb::Status::Gone);
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST(Requests, ACompletionMaySubmitAgain) {
    Host host;
    std::uint8_t byte = 0;
    unsigned reports = 0;
    usb::Transfer read;
    read.type = usb::TransferType::Interrupt;
    read.endpoint = kInterruptInEndpoint;
    read.data = {&byte, 1};
    read.complete = [&](usb::Transfer& transfer) {
        if (transfer.status != usb::Status::Success) {
            return;
        }
        reports++;
        host.adapter.submit(transfer);
    };
    host.adapter.submit(read);
    for (unsigned i = 0; i < 5; i++) {
        host.adapter.reportFrameError();
    }
    EXPECT_EQ(reports, 5u);
    host.adapter.cancel(read);
}

TEST(Requests, ADeafAdapterAnswersNothingUntilTheHostGivesUp) {
    Host host;
    host.adapter.setDeaf(Part::Control, true);
    std::vector<std::uint8_t> data(4);
    EXPECT_EQ(host.control({0xC0, 0x40, 0, 0x8000, 4}, &data), usb::Status::Cancelled);
    host.adapter.setDeaf(Part::Control, false);
    EXPECT_EQ(host.control({0xC0, 0x40, 0, 0x8000, 4}, &data), usb::Status::Success);
    host.adapter.stall(kControlEndpoint);
    EXPECT_EQ(host.control({0xC0, 0x40, 0, 0x8000, 4}, &data), usb::Status::Stalled);
    data.resize(4);
    EXPECT_EQ(host.control({0xC0, 0x40, 0, 0x8000, 4}, &data), usb::Status::Success);
}

} // namespace
} // namespace model::test
