// The registers of the transmitter after a mode set, for every size that the adapter drives.
#include "tests/system/rig.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace system_test {
namespace {

struct Size {
    unsigned width;
    unsigned height;
    bool fast; // more than 80 million pixels a second, blanking included
    std::vector<rig::Setting> settings = {};
};

const Size kSizes[] = {{640, 480, false},
                       {800, 600, false},
                       {848, 480, false},
                       {854, 480, false},
                       {1024, 768, false},
                       {1280, 600, false},
                       {1280, 720, false},
                       {1280, 768, false},
                       {1152, 864, true},
                       {1280, 800, true},
                       {1280, 960, true},
                       {1280, 1024, true},
                       {1360, 768, true},
                       {1366, 768, true},
                       {1400, 1050, true},
                       {1440, 900, true},
                       {1600, 900, true},
                       {1600, 1200, true},
                       {1680, 1050, true},
                       {1920, 1080, true},
                       {1920, 1200, true},
                       {2048, 1152, true},
                       {1920, 1080, true, {setting("FullHD50Enable", 1)}},
                       {1920, 1080, false, {setting("FullHD30Enable", 1)}},
                       {1920, 1080, false, {setting("FullHD24Enable", 1)}}};

struct Register {
    unsigned bank;
    std::uint8_t offset;
    std::uint8_t mask;
    std::uint8_t value;
};
using Registers = std::vector<Register>;

Registers operator+(Registers left, const Registers& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// CEA-861-D, 6.1: version 2, 13 bytes; RGB with active format information, and a code for the sizes that have
// one.
Registers aviInfoFrame(const Size& size) {
    struct Coded {
        std::uint8_t colorimetryAndAspect;
        std::uint8_t vic;
        std::uint8_t checksum;
    };
    const Coded coded = size.width == 640 && size.height == 480     ? Coded{0x58, 1, 0x06}
                        : size.width == 1280 && size.height == 720  ? Coded{0xA8, 4, 0xB3}
                        : size.width == 1920 && size.height == 1080 ? Coded{0xA8, 16, 0xA7}
                                                                    : Coded{0x58, 0, 0x07};
    Registers registers = {{1, 0x58, 0xFF, 0x10},           {1, 0x59, 0xFF, coded.colorimetryAndAspect},
                           {1, 0x5A, 0xFF, 0x00},           {1, 0x5B, 0xFF, coded.vic},
                           {1, 0x5D, 0xFF, coded.checksum}, {0, 0xCD, 0xFF, 0x03}};
    for (const std::uint8_t zero : {0x5C, 0x5E, 0x5F, 0x60, 0x61, 0x62, 0x63, 0x64, 0x65}) {
        registers.push_back({1, zero, 0xFF, 0x00});
    }
    return registers;
}

// CEA-861-D, 6.6: two channels; all other fields refer to the stream.
const Registers kAudioInfoFrame = {{1, 0x68, 0xFF, 0x01}, {1, 0x69, 0xFF, 0x00}, {1, 0x6B, 0xFF, 0x00},
                                   {1, 0x6C, 0xFF, 0x00}, {1, 0x6D, 0xFF, 0x70}, {0, 0xCE, 0xFF, 0x03}};

Registers pll(bool fast) {
    return fast ? Registers{{0, 0x62, 0x90, 0x80}, {0, 0x64, 0x89, 0x80}, {0, 0x68, 0x10, 0x00}}
                : Registers{{0, 0x62, 0x90, 0x10}, {0, 0x64, 0x89, 0x09}, {0, 0x68, 0x10, 0x10}};
}

Registers video(bool hdmi) {
    return {{0, 0x61, 0xFF, 0x00}, {0, 0x04, 0xFF, 0x01}, {0, 0x70, 0xFD, 0x01},
            {0, 0x72, 0xE3, 0x00}, {0, 0xC0, 0xFF, hdmi}, {0, 0x0F, 0x01, 0x00}};
}

Registers audio(bool spdif) {
    const Registers source =
        spdif ? Registers{{0, 0xE0, 0xFF, 0x11}, {0, 0xE1, 0xFF, 0x00}, {0, 0xE3, 0xFF, 0x10}}
              : Registers{{0, 0xE0, 0xFF, 0x01}, {0, 0xE1, 0xFF, 0x41}, {0, 0xE3, 0xFF, 0x00}};
    const Registers format = {{0, 0x58, 0xFF, 0x15}, {0, 0xE2, 0xFF, 0xE4}, {0, 0xE4, 0xFF, 0x00},
                              {0, 0x09, 0x80, 0x00}, {0, 0xC5, 0x02, 0x00}, {0, 0xF8, 0xFF, 0xFF}};
    // N is 4,096; CTS is measured.
    const Registers clock = {{1, 0x33, 0xFF, 0x00}, {1, 0x34, 0xFF, 0x10}, {1, 0x35, 0xFF, 0x00}};
    // IEC 60958-3: consumer, two channels, 44,100 Hz.
    const Registers channelStatus = {{1, 0x90, 0xFF, 0x00}, {1, 0x91, 0xFF, 0x00}, {1, 0x92, 0xFF, 0x00},
                                     {1, 0x93, 0xFF, 0x02}, {1, 0x94, 0xFF, 0x00}, {1, 0x98, 0xFF, 0x00},
                                     {1, 0x99, 0xFF, 0xF2}};
    return source + format + clock + channelStatus;
}

const Registers kUnmuted = {{0, 0xC1, 0x01, 0x00}, {0, 0xC6, 0xFF, 0x03}};

void expectRegisters(const Size& size, std::vector<std::uint8_t> edid, bool hdmi, bool spdif) {
    std::vector<rig::Setting> settings = size.settings;
    settings.push_back(setting("UseHdmiAudioSpdif", spdif));
    runSession(inOrder(settings), [&](Session& session) {
        session.attachMonitor(std::move(edid));
        session.plug(adapterWithTransmitter());
        switchOn(session, size.width, size.height);
        show(session, pattern("outline", size.width, size.height), 5 * kSecond);
        for (const Register& one :
             aviInfoFrame(size) + kAudioInfoFrame + pll(size.fast) + video(hdmi) + audio(spdif) + kUnmuted) {
            EXPECT_EQ(one.value, session.adapter().peekTransmitter(one.bank, one.offset) & one.mask)
                << fmt::format("bank {}, register 0x{:02X}, bits 0x{:02X}", one.bank, one.offset, one.mask);
        }
    });
}

TEST(TransmitterRegisters, FitEverySize) {
    for (const Size& size : kSizes) {
        SCOPED_TRACE(fmt::format("{}x{}{}", size.width, size.height,
                                 size.settings.empty() ? "" : ", another refresh rate"));
        expectRegisters(size, rig::builtinEdid(), true, false);
    }
}

// Every serial command takes milliseconds, in which the display stays dark.
TEST(TransmitterRegisters, AreProgrammedAgainForAnotherSizeOnly) {
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session, adapterWithTransmitter());
        switchOn(session, 640, 480);
        const auto commandsFor = [&](unsigned width, unsigned height) {
            session.setDisplayPower(false);
            session.createFrameBuffer(kDesktop, width, height);
            const std::uint64_t before = session.adapter().statistics().serialCommands;
            session.setDisplayPower(true);
            return session.adapter().statistics().serialCommands - before;
        };
        const std::uint64_t again = commandsFor(640, 480);
        EXPECT_GT(again, 0u) << "no power-up";
        EXPECT_GT(commandsFor(800, 600), 3 * again);
        EXPECT_EQ(again, commandsFor(800, 600));
    });
}

TEST(TransmitterRegisters, FitTheMonitorAndTheSourceOfTheSound) {
    for (const bool spdif : {false, true}) {
        SCOPED_TRACE(spdif ? "S/PDIF" : "I2S");
        expectRegisters(kSizes[0], {}, false, spdif);
        expectRegisters(kSizes[0], rig::builtinEdid(), true, spdif);
    }
}

} // namespace
} // namespace system_test
