// Every legal course of events ends in a picture, and in no violation.
#include <gtest/gtest.h>

#include "model/timing.h"
#include "tests/model/host.h"

namespace model::test {
namespace {

class EveryRevision : public testing::TestWithParam<std::tuple<unsigned, usb::Speed, bool>> {
  protected:
    AdapterOptions options() const {
        AdapterOptions chosen;
        std::tie(chosen.revision, chosen.link, chosen.transmitter) = GetParam();
        return chosen;
    }
    void plug() {
        host.adapter.attachMonitor(edidOf(2));
        host.powerUp();
        host.read(reg::kStatus);
        host.enableOutput();
    }
    void show(const Mode& mode) {
        host.setMode(mode);
        if (options().transmitter) {
            host.txProgram(mode);
        }
    }
    void expectPicture(const Mode& mode, std::uint32_t seed) {
        const auto frame = noise(pixels(mode) * 3, seed);
        host.sendFrame(frame);
        EXPECT_EQ(host.adapter.darkReason(), "");
        const auto raw = host.adapter.rawFrame();
        ASSERT_TRUE(raw);
        EXPECT_EQ(raw->width, mode.width);
        EXPECT_TRUE(raw->pixels == frame);
        EXPECT_EQ(host.adapter.rawChecksum(), checksum(frame));
        EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
    }

    Host host{options()};
    const Mode& small = modeOf(640, 480);
    const Mode& large = modeOf(800, 600);
};

INSTANTIATE_TEST_SUITE_P(Adapters, EveryRevision,
                         testing::Combine(testing::Values(0u, 1u, 2u),
                                          testing::Values(usb::Speed::High, usb::Speed::Super),
                                          testing::Bool()));

TEST_P(EveryRevision, ShowsFramesOverModeChangesAndDisplayOff) {
    plug();
    EXPECT_NE(host.adapter.darkReason(), "");
    show(small);
    EXPECT_EQ(host.adapter.darkReason(), "no frame has arrived since the output was set up");
    expectPicture(small, 1);
    show(large);
    expectPicture(large, 2);
    // 24 to 16 bits and back does not touch the transmitter.
    host.displayOff();
    host.setMode(large, kRgb565);
    host.sendFrame(noise(pixels(large) * 2, 3));
    EXPECT_EQ(host.adapter.darkReason(), "");
    host.displayOff();
    host.setMode(large);
    expectPicture(large, 4);
    // Display off and on again, in the same mode.
    if (options().transmitter) {
        host.txPowerDown();
    }
    host.displayOff();
    EXPECT_NE(host.adapter.darkReason(), "");
    host.setMode(large);
    if (options().transmitter) {
        host.txPowerUp();
    }
    expectPicture(large, 5);
}

TEST_P(EveryRevision, ShowsThePictureAgainAfterSleepInMidStream) {
    plug();
    show(small);
    expectPicture(small, 1);
    for (unsigned round = 0; round < 2; round++) {
        const auto frame = noise(pixels(small) * 3, round);
        host.sleep();
        // A stream that was not stopped continues while the adapter goes to sleep and wakes, and its position
        // against the wake-up is up to chance.
        host.sendFrame(frame);
        if (options().transmitter) {
            host.txPowerDown();
        }
        host.powerUp();
        host.sendFrame(frame);
        if (options().revision == 0) {
            host.enableOutput();
        } else {
            EXPECT_EQ(host.read(reg::kPll), 0u) << "a host would not restore the timing";
            host.send(frame);
            host.setMode(small);
            host.send({});
        }
        if (options().transmitter) {
            host.txProgram(small);
        }
        expectPicture(small, 10 + round);
    }
}

TEST_P(EveryRevision, ShowsThePictureAgainAfterDetachAndAttach) {
    plug();
    show(small);
    expectPicture(small, 1);
    for (unsigned round = 0; round < 10; round++) {
        host.adapter.detachMonitor();
        EXPECT_EQ(host.adapter.darkReason(), "no monitor is attached");
        host.disableOutput();
        host.adapter.attachMonitor(edidOf(1 + round % 4));
        EXPECT_NE(host.adapter.darkReason(), "");
        host.enableOutput();
        show(small);
        expectPicture(small, 2 + round);
    }
}

// The one mode whose own PLL word misses its pixel clock by more than 1 % (500 MHz for 505.5).
bool missesItsClock(const Mode& mode) {
    return mode.width == 2560 && mode.refresh == 85;
}

TEST(Sequences, ShowEveryModeOfTheTable) {
    Host host;
    host.switchOn(2);
    for (const Mode& mode : kModes) {
        host.setMode(mode, kRgb8);
        host.sendFrame(noise(pixels(mode), mode.pll));
        if (missesItsClock(mode)) {
            EXPECT_EQ(host.takeViolationKinds(), std::vector{ViolationKind::BadClock});
            continue;
        }
        EXPECT_EQ(host.adapter.darkReason(), "") << mode.width << "x" << mode.height << "@" << mode.refresh;
        ASSERT_TRUE(host.adapter.outputMode());
        EXPECT_NEAR(host.adapter.outputMode()->refresh, mode.refresh, 0.01 * mode.refresh);
    }
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

// The clock rule is only as good as its power to tell a wrong word: of the words of the other modes, few give
// this mode a refresh that exists, and never the mode's own.
TEST(Sequences, TellAWrongPllWord) {
    unsigned accepted = 0, wrong = 0;
    for (const Mode& mode : kModes) {
        Timing timing;
        timing.horizontalTotal = mode.horizontalTotal;
        timing.verticalTotal = mode.verticalTotal;
        EXPECT_EQ(nominalRefresh(timing, pllClock(mode.pll)) == mode.refresh, !missesItsClock(mode));
        for (const Mode& other : kModes) {
            const double ratio = pllClock(other.pll) / pllClock(mode.pll);
            if (ratio > 0.98 && ratio < 1.02) {
                continue;
            }
            wrong++;
            const auto refresh = nominalRefresh(timing, pllClock(other.pll));
            accepted += refresh.has_value();
            EXPECT_NE(refresh, mode.refresh);
        }
    }
    EXPECT_LT(accepted, wrong / 4) << accepted << " of " << wrong;
}

TEST(Sequences, NameTheReasonForADarkScreen) {
    const Mode& mode = modeOf(640, 480);
    const std::pair<const char*, std::function<void(Host&)>> cases[] = {
        {"no monitor is attached", [](Host& host) { host.adapter.detachMonitor(); }},
        {"the output stage has no power",
         [](Host& host) { host.clear(reg::kSerialControl, reg::kPowerStage1); }},
        {"the output stage has no power",
         [](Host& host) { host.clear(reg::kSerialControl, reg::kPowerStage2); }},
        {"the output drivers are off", [](Host& host) { host.clear(reg::kOutput, reg::kOutputDriverA); }},
        {"the output is in standby", [](Host& host) { host.set(reg::kStandby, reg::kStandbyOutput); }},
        {"the pixel clock stands still", [](Host& host) { host.clear(reg::kControl, reg::kControlPll); }},
        {"the frame input is off", [](Host& host) { host.clear(reg::kFormat, reg::kFormatEnable); }},
        {"no frame has arrived since the output was set up", [](Host& host) { host.displayOff(); }},
        {"the picture's origin lies outside the frame", [](Host& host) { host.set(reg::kOrigin, 1u << 20); }},
        {"the output is held for the transmitter",
         [](Host& host) { host.set(reg::kControl, reg::kControlTransmitterHold); }},
    };
    for (const auto& [reason, spoil] : cases) {
        Host host;
        host.switchOn();
        host.setMode(mode);
        host.sendFrame(noise(pixels(mode) * 3, 1));
        ASSERT_EQ(host.adapter.darkReason(), "");
        spoil(host);
        EXPECT_EQ(host.adapter.darkReason(), reason);
        EXPECT_FALSE(host.adapter.picture());
    }
}

TEST(Sequences, StatusEventsAreReportedOnceAndLost) {
    for (const unsigned revision : {0u, 1u, 2u}) {
        AdapterOptions options;
        options.revision = revision;
        Host host(options);
        host.adapter.attachMonitor(edidOf(1));
        const std::uint32_t first = host.read(reg::kStatus);
        EXPECT_EQ(first, 0xB0000001u);
        host.adapter.reportFrameError(); // between the read and the acknowledgement
        if (revision < 2) {
            host.write(reg::kStatus, first);
        }
        EXPECT_EQ(host.read(reg::kStatus), 0x30000003u) << "revision " << revision;
        if (revision < 2) {
            host.write(reg::kStatus, 0x30000001); // as a host that clears the frame-error bit alone does
        }
        EXPECT_EQ(host.read(reg::kStatus), 0x30000001u);
        host.adapter.detachMonitor();
        EXPECT_EQ(host.read(reg::kStatus), 0x40000000u);
    }
}

} // namespace
} // namespace model::test
