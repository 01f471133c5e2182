// What the client is offered after a rewrite of the EDID's base block. The fuzz target edid_fuzz rewrites any
// bytes.
#include "tests/display/edid_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace edid_test {
namespace {

constexpr USHORT kUsb2 = 0x0210;
constexpr USHORT kUsb3 = 0x0300;
using Modes = std::vector<std::array<ULONG, 3>>;

const Timing kFullHd = {14850, 1920, 280, 1080, 45};

TEST(EdidTiming, StandardTimingsDecode) {
    struct {
        unsigned first;
        unsigned aspect;
        unsigned width;
        unsigned height;
    } const cases[] = {
        {0x81, 1, 1280, 960},  {0x81, 2, 1280, 1024}, {0x81, 0, 1280, 800},
        {0xD1, 3, 1920, 1080}, {0xB3, 0, 1680, 1050}, {0xA9, 1, 1600, 1200},
        {0x01, 0, 256, 160},   {0x00, 3, 248, 135},   {0xFF, 2, 2288, 1828}, // 2288 / 5 is 457
        {0x8B, 3, 1360, 765},
    };
    for (const auto& expected : cases) {
        ULONG width;
        ULONG height;
        EDID_DecodeStandardTiming(static_cast<UCHAR>(expected.first), expected.aspect, &width, &height);
        EXPECT_EQ(width, expected.width) << expected.first;
        EXPECT_EQ(height, expected.height) << expected.first;
    }
}

TEST(EdidTiming, DetailedTimingsHoldAModeAndKeepTheRest) {
    struct {
        unsigned width;
        unsigned height;
        unsigned clock;
    } const cases[] = {{800, 600, 2899}, {640, 480, 1855}, {1024, 768, 4750}, {2048, 1152, 14250}};
    for (const auto& mode : cases) {
        for (unsigned slot = 0; slot < EDID_DETAILED_TIMING_COUNT; slot++) {
            Monitor monitor;
            monitor.detailed(slot, {1, 4095, 4095, 4095, 4095});
            EDID_WriteDetailedTiming(monitor.get(), slot, mode.width, mode.height);
            const EDID_DETAILED_TIMING timing = monitor.timing(slot);
            EXPECT_EQ(timing.PixelClock, mode.clock);
            EXPECT_EQ(timing.HorizontalActive, mode.width);
            EXPECT_EQ(timing.HorizontalBlanking, 0u);
            EXPECT_EQ(timing.VerticalActive, mode.height);
            EXPECT_EQ(timing.VerticalBlanking, 0u);
            for (unsigned i = 8; i < EDID_DETAILED_TIMING_SIZE; i++) {
                EXPECT_EQ(monitor.base()[54 + 18 * slot + i], 0xA0 + i);
            }
        }
    }
}

TEST(EdidTiming, SlotsThatDoNotExistAreLeftAlone) {
    Monitor monitor;
    monitor.detailed(3, kFullHd);
    const Bytes before(monitor.base(), monitor.base() + EDID_BLOCK_SIZE);
    EDID_WriteDetailedTiming(monitor.get(), 4, 800, 600);
    EXPECT_EQ(Bytes(monitor.base(), monitor.base() + EDID_BLOCK_SIZE), before);
    EXPECT_EQ(monitor.timing(4).PixelClock, 0u);
}

TEST(EdidRewrite, OffersOneModeOnASlowLink) {
    struct {
        ULONG filter;
        unsigned established[2];
        unsigned width;
        unsigned height;
    } const cases[] = {
        {1, {0x01, 0x00}, 800, 600}, {2, {0x20, 0x00}, 640, 480}, {3, {0x00, 0x08}, 1024, 768}};
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.filter);
        Monitor monitor;
        monitor.detailed(0, kFullHd).detailed(1, kFullHd).standard(0, 0xD1, 0xC0).standard(7, 0x81, 0x80);
        monitor.base()[35] = monitor.base()[36] = monitor.base()[37] = 0xFF;
        EDID_Rewrite(monitor.get(), kUsb2, expected.filter);
        EXPECT_EQ(monitor.base()[35], expected.established[0]);
        EXPECT_EQ(monitor.base()[36], expected.established[1]);
        EXPECT_EQ(monitor.base()[37], 0);
        for (unsigned i = 38; i < 54; i++) {
            EXPECT_EQ(monitor.base()[i], 0x01) << i;
        }
        EXPECT_EQ(monitor.timing(0).HorizontalActive, expected.width);
        EXPECT_EQ(monitor.timing(0).VerticalActive, expected.height);
        EXPECT_EQ(monitor.timing(1).HorizontalActive, 1920u);
        EXPECT_EQ(monitor.sum(), 0);
    }
}

TEST(EdidRewrite, OtherFilterValuesOnASlowLinkFixTheChecksumOnly) {
    for (const USHORT bcdUsb : {USHORT{0x0200}, kUsb2, USHORT{0x0310}}) {
        for (const ULONG filter : {4u, 0x80000001u}) {
            Monitor monitor;
            monitor.detailed(0, kFullHd);
            const Bytes before(monitor.base(), monitor.base() + 127);
            EDID_Rewrite(monitor.get(), bcdUsb, filter);
            EXPECT_EQ(Bytes(monitor.base(), monitor.base() + 127), before);
            EXPECT_EQ(monitor.sum(), 0);
        }
    }
}

TEST(EdidRewrite, KeepsStandardTimingsTheAdapterDrives) {
    struct {
        const char* what;
        std::uint8_t first;
        std::uint8_t second;
        bool kept;
    } const cases[] = {
        {"1920 x 1080 at 60 Hz", 0xD1, 0xC0, true}, {"1680 x 1050 at 60 Hz", 0xB3, 0x00, true},
        {"1280 x 1024 at 60 Hz", 0x81, 0x80, true}, {"1280 x 1024 at 75 Hz", 0x81, 0x8F, false},
        {"1152 x 864 at 60 Hz", 0x71, 0x40, true},  {"2048 x 1152 at 60 Hz", 0xE1, 0xC0, true},
        {"not in the table", 0x81, 0xC3, false},    {"empty", 0x01, 0x01, false},
        {"empty in another way", 0x00, 0x00, false}};
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.what);
        Monitor monitor;
        monitor.standard(5, expected.first, expected.second);
        EDID_Rewrite(monitor.get(), kUsb3, 1);
        EXPECT_EQ(monitor.base()[48], expected.kept ? expected.first : 0x61);
        EXPECT_EQ(monitor.base()[49], expected.kept ? expected.second : 0x7C);
        EXPECT_EQ(monitor.modes().size(), expected.kept ? 2u : 1u); // 1024 x 768 is always there
    }
}

struct DetailedCase {
    const char* what;
    Timing before;
    unsigned clock;              // after
    std::array<ULONG, 3> listed; // the mode that it adds; none with width 0
};

// In slot 1, which no preferred timing overwrites.
const DetailedCase kDetailed[] = {
    {"60 Hz stays", kFullHd, 14850, {1920, 1080, 60}},
    {"60.9 Hz counts as 60", {15072, 1920, 280, 1080, 45}, 15072, {1920, 1080, 60}},
    {"59.94 Hz becomes 60.4", {14835, 1920, 280, 1080, 45}, 14949, {1920, 1080, 60}},
    {"75 Hz becomes 60.4", {13500, 1280, 408, 1024, 42}, 10868, {1280, 1024, 60}},
    {"blanking counts", {2518, 640, 160, 480, 45}, 2536, {640, 480, 60}},
    {"a clock beyond 16 bits is the largest", {1, 4095, 4095, 4095, 4095}, 0xFFFF, {2048, 1152, 60}},
    {"the first clock that fits no more", {1, 3300, 0, 3300, 0}, 0xFFFF, {2048, 1152, 60}},
    {"too many pixels offer the largest mode", {26850, 2560, 160, 1600, 46}, 27041, {2048, 1152, 60}},
    {"the most pixels there may be", {14250, 2048, 0, 1152, 0}, 14250, {2048, 1152, 60}},
    {"no width", {100, 0, 100, 100, 100}, 120, {0, 100, 60}},
};

TEST(EdidRewrite, BringsDetailedTimingsTo60Hz) {
    for (const DetailedCase& expected : kDetailed) {
        SCOPED_TRACE(expected.what);
        Monitor monitor;
        monitor.detailed(0, {4853, 1024, 0, 768, 0}).detailed(1, expected.before);
        EDID_Rewrite(monitor.get(), kUsb3, 1);
        EXPECT_EQ(monitor.timing(1).PixelClock, expected.clock);
        EXPECT_EQ(monitor.timing(1).HorizontalActive, expected.before.width);
        EXPECT_EQ(monitor.modes(), (Modes{{1024, 768, 60}, expected.listed}));
        EXPECT_EQ(monitor.sum(), 0);
    }
}

TEST(EdidRewrite, TimingsWithoutPixelsBecomeDummies) {
    for (const Timing& empty :
         {Timing{1, 0, 0, 0, 0}, Timing{0xFFFF, 4095, 4095, 0, 0}, Timing{100, 0, 0, 768, 10}}) {
        Monitor monitor;
        monitor.detailed(0, kFullHd).detailed(1, empty).detailed(2, {14625, 1680, 560, 1050, 39});
        EDID_Rewrite(monitor.get(), kUsb3, 1);
        const std::uint8_t dummy[18] = {0, 0, 0, 0x10};
        EXPECT_EQ(std::memcmp(monitor.base() + 72, dummy, sizeof dummy), 0);
        // The slots behind it still count.
        EXPECT_EQ(monitor.modes(), (Modes{{1024, 768, 60}, {1920, 1080, 60}, {1680, 1050, 60}}));
    }
}

TEST(EdidRewrite, DetailedTimingsEndAtTheFirstDescriptor) {
    Monitor monitor;
    monitor.detailed(0, kFullHd).detailed(1, {0, 1, 1, 1, 1}).detailed(2, {13500, 1280, 408, 1024, 42});
    EDID_Rewrite(monitor.get(), kUsb3, 1);
    EXPECT_EQ(monitor.modes(), (Modes{{1024, 768, 60}, {1920, 1080, 60}}));
    EXPECT_EQ(monitor.timing(2).PixelClock, 13500u);
}

TEST(EdidRewrite, PrefersTheLargestMode) {
    struct {
        const char* what;
        std::function<void(Monitor&)> build;
        unsigned width;
        unsigned height;
    } const cases[] = {
        {"1024 x 768 when nothing else is left", [](Monitor&) {}, 1024, 768},
        {"a standard timing larger than the detailed one",
         [](Monitor& m) {
             m.detailed(0, {10800, 1280, 408, 1024, 42}).standard(0, 0xD1, 0xC0);
         },
         1920, 1080},
        {"a CEA mode", [](Monitor& m) { m.cea(1, video({16})), EDID_AddCeaModes(m.get(), 1); }, 1920, 1080},
        {"2048 x 1152 for a larger monitor",
         [](Monitor& m) {
             m.detailed(0, {26850, 2560, 160, 1600, 46});
         },
         2048, 1152},
        {"the later of two with as many pixels",
         [](Monitor& m) {
             m.detailed(0, {5000, 800, 0, 900, 0}).detailed(1, {5000, 900, 0, 800, 0});
         },
         1024, 768},
        {"1600 x 1200", [](Monitor& m) { m.standard(0, 0xA9, 0x40); }, 1600, 1200},
        {"1680 x 1050 rather than 1600 x 1200",
         [](Monitor& m) { m.standard(0, 0xB3, 0x00).standard(1, 0xA9, 0x40); }, 1680, 1050},
        {"1920 x 1080 rather than both",
         [](Monitor& m) { m.standard(0, 0xB3, 0x00).standard(1, 0xA9, 0x40).standard(2, 0xD1, 0xC0); }, 1920,
         1080},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.what);
        Monitor monitor;
        expected.build(monitor);
        EDID_Rewrite(monitor.get(), kUsb3, 1);
        EXPECT_EQ(monitor.timing(0).HorizontalActive, expected.width);
        EXPECT_EQ(monitor.timing(0).VerticalActive, expected.height);
    }
    Monitor tie;
    tie.detailed(0, {9000, 1200, 0, 1250, 0}).detailed(1, {9000, 1250, 0, 1200, 0});
    EDID_Rewrite(tie.get(), kUsb3, 1);
    EXPECT_EQ(tie.timing(0).HorizontalActive, 1250u);
}

} // namespace
} // namespace edid_test
