// The transmitter: what it sends, what it refuses, and its DDC master.
#include <gtest/gtest.h>

#include "model/transmitter.h"
#include "tests/model/host.h"

namespace model::test {
namespace {

using Kinds = std::vector<ViolationKind>;

class TransmitterTest : public testing::Test {
  protected:
    static AdapterOptions fitted() {
        AdapterOptions options;
        options.transmitter = true;
        return options;
    }
    void start(const Mode& chosen) {
        host.switchOn(4);
        host.setMode(chosen, kRgb8);
    }
    TransmitterReport report() const { return *host.adapter.transmitter(); }

    Host host{fitted()};
};

TEST_F(TransmitterTest, SendsPictureSoundAndInfoFrames) {
    struct Case {
        const Mode& mode;
        bool hdmi;
        unsigned vic;
        const char* aspect;
        const char* colorimetry;
    };
    const Case cases[] = {
        {modeOf(640, 480), true, 1, "4:3", "ITU-R 601"},
        {modeOf(1280, 720), true, 4, "16:9", "ITU-R 709"},
        {modeOf(1920, 1080), true, 16, "16:9", "ITU-R 709"},
        {modeOf(1920, 1080, 30), true, 16, "16:9", "ITU-R 709"},
        {modeOf(1024, 768), true, 0, "4:3", "ITU-R 601"},
        {modeOf(1280, 1024), false, 0, "4:3", "ITU-R 601"},
    };
    EXPECT_FALSE(Host().adapter.transmitter());
    start(cases[0].mode);
    EXPECT_TRUE(report().avMute) << "nothing leaves an unprogrammed transmitter";
    for (const Case& test : cases) {
        host.displayOff();
        host.setMode(test.mode, kRgb8);
        host.txProgram(test.mode, test.hdmi);
        host.sendFrame(noise(pixels(test.mode), 1));
        EXPECT_EQ(host.adapter.darkReason(), "");
        const TransmitterReport told = report();
        EXPECT_TRUE(told.powered);
        EXPECT_EQ(told.hdmi, test.hdmi);
        EXPECT_FALSE(told.avMute || told.videoMuted);
        EXPECT_EQ(told.sampleRate, 44'100u);
        EXPECT_EQ(told.audioRunning, test.hdmi);
        EXPECT_EQ(told.avi.has_value(), test.hdmi) << "a DVI sink gets no InfoFrames";
        if (told.avi) {
            EXPECT_EQ(told.avi->vic, test.vic);
            EXPECT_EQ(told.avi->aspect, test.aspect);
            EXPECT_EQ(told.avi->colorimetry, test.colorimetry);
            EXPECT_EQ(told.avi->bytes.size(), 17u);
            ASSERT_TRUE(told.audio);
            EXPECT_EQ(told.audio->channels, 2u);
        }
    }
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(TransmitterTest, KeepsItsProgrammeOverPowerDownAndLosesItInReset) {
    const Mode& mode = modeOf(640, 480);
    start(mode);
    host.txProgram(mode);
    host.sendFrame(noise(pixels(mode), 1));
    host.txPowerDown();
    EXPECT_EQ(host.adapter.darkReason(), "the transmitter is powered down");
    EXPECT_FALSE(report().powered);
    host.txPowerUp();
    EXPECT_EQ(host.adapter.darkReason(), "");

    host.txMask(0x04, 0x20, 0x20);
    std::uint32_t identity = 0;
    EXPECT_FALSE(host.i2cRead(i2c::kTransmitter, 0, identity)) << "no answer while it resets";
    host.clock.advance(Transmitter::kResetTime);
    EXPECT_TRUE(host.i2cRead(i2c::kTransmitter, 0, identity));
    EXPECT_EQ(identity & 0x0FFFFFFF, 0x06124954u);
    EXPECT_TRUE(report().powered) << "the power registers outlive the reset";
    EXPECT_TRUE(report().avMute);
    EXPECT_NE(host.adapter.darkReason(), "");
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(TransmitterTest, MistakesAreViolations) {
    const Mode& mode = modeOf(1920, 1080);
    struct Case {
        const char* what;
        std::function<void(Host&)> act;
        ViolationKind expected;
    };
    const auto avi = [](std::uint32_t first, std::uint32_t second) {
        return [=](Host& host) {
            host.txWrite(0x0F, 1);
            host.i2cWrite(i2c::kTransmitter, 0x58, first);
            host.i2cWrite(i2c::kTransmitter, 0x5C, second);
            host.txWrite(0x0F, 0);
            host.txWrite(0xCD, 0x03);
        };
    };
    const Case cases[] = {
        {"AVI checksum", avi(0x1000A810, 0xA600), ViolationKind::BadInfoFrame},
        {"VIC of another size", avi(0x0400A810, 0xB300), ViolationKind::BadInfoFrame},
        {"no VIC for a size that has one", avi(0x0000A810, 0xB700), ViolationKind::BadInfoFrame},
        {"an unknown VIC", avi(0x7000A810, 0x4700), ViolationKind::BadInfoFrame},
        {"aspect against the VIC", avi(0x10005810, 0xF700), ViolationKind::BadInfoFrame},
        {"audio checksum",
         [](Host& host) {
             host.txWrite(0x0F, 1);
             host.txWrite(0x6D, 0x71);
             host.txWrite(0x0F, 0);
             host.txWrite(0xCE, 0x03);
         },
         ViolationKind::BadInfoFrame},
        {"channel status in bank 0", [](Host& host) { host.i2cWrite(i2c::kTransmitter, 0x90, 0); },
         ViolationKind::WrongBank},
        {"AV mute in bank 1",
         [](Host& host) {
             host.txWrite(0x0F, 1);
             host.i2cWrite(i2c::kTransmitter, 0xC0, 0);
         },
         ViolationKind::WrongBank},
        {"a register that does not exist", [](Host& host) { host.i2cWrite(i2c::kTransmitter, 0xA0, 0); },
         ViolationKind::UnknownRegister},
        {"a protected bit while locked", [](Host& host) { host.txMask(0xC5, 0x02, 0x02); },
         ViolationKind::LockedRegister},
        {"a protected bit after the first key alone",
         [](Host& host) {
             host.txWrite(0xF8, 0xC3);
             host.txMask(0xC5, 0x02, 0x02);
         },
         ViolationKind::LockedRegister},
        {"a protected bit after the second key alone",
         [](Host& host) {
             host.txWrite(0xF8, 0xA5);
             host.txMask(0xC5, 0x02, 0x02);
         },
         ViolationKind::LockedRegister},
        {"video while powered down",
         [](Host& host) {
             host.txPowerDown();
             host.i2cWrite(i2c::kTransmitter, 0x70, 1);
         },
         ViolationKind::UnpoweredFunction},
        {"unmuted in the wrong band",
         [](Host& host) {
             host.txMask(0xC1, 1, 1);
             host.txMask(0x62, 0x90, 0x10);
             host.txMask(0xC1, 1, 0);
         },
         ViolationKind::BadTransmitterSetup},
        {"DDC read without owning the master",
         [](Host& host) {
             host.i2cWrite(i2c::kTransmitter, 0x10, 0x2000A000);
             host.i2cWrite(i2c::kTransmitter, 0x14, 0x0300);
         },
         ViolationKind::BadTransmitterSetup},
        {"DDC read of more than the FIFO holds",
         [](Host& host) {
             host.i2cWrite(i2c::kTransmitter, 0x10, 0x2100A001);
             host.i2cWrite(i2c::kTransmitter, 0x14, 0x0300);
         },
         ViolationKind::BadTransmitterSetup},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        Host other(fitted());
        other.switchOn();
        other.setMode(mode, kRgb8);
        other.txProgram(mode);
        ASSERT_EQ(other.takeViolations(), std::vector<std::string>{});
        test.act(other);
        EXPECT_EQ(other.takeViolationKinds(), Kinds{test.expected});
    }
}

TEST_F(TransmitterTest, DdcDeliversFromTheThirdByteOn) {
    start(modeOf(640, 480));
    host.txPowerDown(); // the DDC master is always on
    const auto edid = edidOf(4);
    const auto expect = [&](std::uint8_t segment, std::uint8_t offset, std::uint8_t count) {
        const std::size_t from = segment * 256u + offset + 3u;
        EXPECT_EQ(host.txDdcRead(segment, offset, count),
                  std::vector<std::uint8_t>(edid.begin() + static_cast<std::ptrdiff_t>(from),
                                            edid.begin() + static_cast<std::ptrdiff_t>(from + count - 3u)));
    };
    expect(0, 0x00, 32);
    expect(0, 0x7D, 32);
    expect(0, 0xDD, 6);
    expect(1, 0x20, 32);
    expect(1, 0xE0, 32);
    EXPECT_EQ(host.txRead(0x16), tx::kDdcStatusDone);
    EXPECT_EQ(host.txRead(0x17), 0) << "the FIFO is empty";
    host.adapter.attachMonitor(edidOf(2));
    host.txDdcRead(1, 0, 32);
    EXPECT_EQ(host.txRead(0x16), tx::kDdcStatusNoAcknowledge) << "two blocks know no segments";
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(TransmitterTest, AnAbortFreesABusyBusButNotAStuckOne) {
    start(modeOf(640, 480));
    const auto polls = [&] {
        host.txMask(0x20, 1, 0);
        host.txWrite(0x10, 0x01);
        host.txWrite(0x15, 0x0F);
        unsigned count = 0;
        while (count < 200 && (host.txRead(0x16) & 0xB8) == 0) {
            host.clock.advance(50 * usb::kMillisecond);
            count++;
        }
        return count;
    };
    const auto hang = [&] { return (host.txRead(0x06) & tx::kInterruptDdcHang) != 0; };
    EXPECT_FALSE(hang());
    host.adapter.setDdcFault(DdcFault::Busy);
    EXPECT_TRUE(hang());
    EXPECT_GE(polls(), 1u);
    EXPECT_FALSE(hang());
    EXPECT_EQ(polls(), 0u) << "nothing left to free";
    EXPECT_EQ(host.txDdcRead(0, 0, 6).size(), 3u);

    // A monitor that stops answering in mid-read: what came before is in the FIFO, the bus hangs.
    host.adapter.limitDdcAnswers(10);
    EXPECT_EQ(host.txDdcRead(0, 0, 32)[6], 9);
    EXPECT_TRUE(hang());
    EXPECT_GE(polls(), 1u);
    EXPECT_FALSE(hang());
    host.adapter.limitDdcAnswers(std::nullopt);
    EXPECT_EQ(host.txDdcRead(0, 0, 32)[28], 31);

    host.adapter.setDdcFault(DdcFault::Stuck);
    EXPECT_EQ(polls(), 200u);
    EXPECT_TRUE(hang());
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(TransmitterTest, SpdifLocksLateOrNever) {
    start(modeOf(640, 480));
    host.adapter.setSpdifLock(200 * usb::kMillisecond);
    host.txMask(0x5C, 0x40, 0x40);
    EXPECT_EQ(host.txRead(0x5F) & 0x20, 0);
    host.clock.advance(200 * usb::kMillisecond);
    EXPECT_EQ(host.txRead(0x5F) & 0x20, 0x20);
    host.adapter.setSpdifLock(std::nullopt);
    host.clock.advance(100 * usb::kSecond);
    EXPECT_EQ(host.txRead(0x5F) & 0x20, 0);
}

TEST_F(TransmitterTest, DeafAndStuckLookAbsent) {
    std::uint32_t identity = 0;
    host.adapter.setDeaf(Part::Transmitter, true);
    EXPECT_FALSE(host.i2cRead(i2c::kTransmitter, 0, identity));
    host.adapter.setDeaf(Part::Transmitter, false);
    host.adapter.setTransmitterFault(TransmitterFault::Stuck);
    EXPECT_FALSE(host.i2cRead(i2c::kTransmitter, 0, identity));
    host.adapter.setTransmitterFault(TransmitterFault::None);
    EXPECT_TRUE(host.i2cRead(i2c::kTransmitter, 0, identity));
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(TransmitterTest, StatusTellsWhichWayTheEdidIsRead) {
    start(modeOf(640, 480));
    EXPECT_EQ(host.read(reg::kStatus) >> 28 & 3, 1u);
    AdapterOptions options = fitted();
    options.ddcPath = DdcPath::AdapterMaster;
    Host other(options);
    other.adapter.attachMonitor(edidOf(1));
    EXPECT_EQ(other.read(reg::kStatus) >> 28 & 3, 3u);
    other.adapter.attachMonitor({});
    EXPECT_EQ(other.read(reg::kStatus) & 0x30000001, 1u);
}

} // namespace
} // namespace model::test
