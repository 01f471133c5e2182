// Which EDIDs are accepted, and which modes their CEA extensions add. The bytes are the monitor's: no
// extension count, offset or length may lead outside the block. The fuzz target edid_fuzz checks the same
// with any bytes.
#include "tests/display/edid_builder.h"

#include "display/monitor_modes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace edid_test {
namespace {

struct Case {
    const char* what;
    bool valid;
    std::function<void(Monitor&)> change;
};

// Each case starts as a base block and one HDMI extension with video, audio, vendor and speaker data.
Monitor hdmiMonitor() {
    Monitor monitor;
    monitor.extensions(1).cea(1, video({0x90, 0x04}) + dataBlock(1, {0x09, 0x07, 0x07}) + hdmiVendor() +
                                     dataBlock(4, {0x01, 0x00, 0x00}));
    return monitor;
}

const Case kValidation[] = {
    {"unchanged", true, [](Monitor&) {}},
    {"no extension", true, [](Monitor& m) { m.extensions(0); }},
    {"first header byte", false, [](Monitor& m) { m.base()[0] = 1; }},
    {"last header byte", false, [](Monitor& m) { m.base()[7] = 1; }},
    {"all zero", false, [](Monitor& m) { EDID_Clear(m.get()); }},
    {"wrong checksum", true, [](Monitor& m) { m.base()[127] ^= 0x55; }},
    {"another extension", true, [](Monitor& m) { m.block(1)[0] = 0x70; }},
    {"CEA revision 1", false, [](Monitor& m) { m.block(1)[1] = 1; }},
    {"CEA revision 4", false, [](Monitor& m) { m.block(1)[1] = 4; }},
    {"no detailed timing offset", false, [](Monitor& m) { m.block(1)[2] = 0; }},
    {"no flags", false, [](Monitor& m) { m.block(1)[3] = 0; }},
    {"empty detailed timing", false, [](Monitor& m) { m.block(1)[m.block(1)[2]] = 0; }},
    {"only the fourth byte of the timing set", true,
     [](Monitor& m) { std::swap(m.block(1)[m.block(1)[2]], m.block(1)[m.block(1)[2] + 3]); }},
    {"only the fifth byte of the timing set", false,
     [](Monitor& m) { std::swap(m.block(1)[m.block(1)[2]], m.block(1)[m.block(1)[2] + 4]); }},
    {"another vendor", false,
     [](Monitor& m) {
         m.cea(1, dataBlock(3, {0x1A, 0x00, 0x00}));
     }},
    {"HDMI and then another vendor", false,
     [](Monitor& m) {
         m.cea(1, hdmiVendor() + dataBlock(3, {0xD8, 0x5D, 0xC4}));
     }},
    {"another vendor behind the detailed timings", true,
     [](Monitor& m) {
         m.cea(1, hdmiVendor());
         m.block(1)[m.block(1)[2] + 18] = 0x65;
     }},
    {"unknown tag before another vendor", true,
     [](Monitor& m) {
         m.cea(1, dataBlock(7, {0x05}) + dataBlock(3, {1, 2, 3}));
     }},
    {"tag 0 before another vendor", true,
     [](Monitor& m) {
         m.cea(1, dataBlock(0, {0x05}) + dataBlock(3, {1, 2, 3}));
     }},
    {"empty data block before another vendor", true,
     [](Monitor& m) {
         m.cea(1, dataBlock(1, {}) + dataBlock(3, {1, 2, 3}));
     }},
    {"header 0 before another vendor", true,
     [](Monitor& m) {
         m.cea(1, Bytes{0} + dataBlock(3, {1, 2, 3}));
     }},
    {"unknown tag before a bad second extension", true,
     [](Monitor& m) { m.extensions(2).cea(1, dataBlock(7, {0x05})).cea(2, {}, 1); }},
    {"a bad second extension", false, [](Monitor& m) { m.extensions(2).cea(2, {}, 1); }},
    {"a bad second extension that is not counted", true, [](Monitor& m) { m.cea(2, {}, 1); }},
    {"a bad seventh extension of 8", false, [](Monitor& m) { m.extensions(8).cea(7, {}, 1); }},
    {"a bad seventh extension of 255", false, [](Monitor& m) { m.extensions(255).cea(7, {}, 1); }},
    {"seven good extensions of 255", true,
     [](Monitor& m) {
         m.extensions(255);
         for (unsigned block = 2; block < 8; block++) {
             m.cea(block, hdmiVendor());
         }
     }},
    {"timing offset behind the block", false,
     [](Monitor& m) {
         m.block(1)[2] = 128;
         m.block(2)[0] = 1;
     }},
    {"largest timing offset", false,
     [](Monitor& m) {
         m.block(1)[2] = 255;
         m.block(2)[127] = 1;
     }},
    {"timing cut off by the end of the block", true,
     [](Monitor& m) {
         m.block(1)[2] = 127;
         m.block(1)[127] = 1;
     }},
    {"vendor identifier cut off by the end of the block", false,
     [](Monitor& m) {
         std::memset(m.block(1) + 4, 0, 124);
         m.block(1)[4] = 1 << 5 | 30;
         for (unsigned at = 35; at < 125; at += 30) {
             m.block(1)[at] = 1 << 5 | 29;
         }
         m.block(1)[2] = 127;
         m.block(1)[125] = 3 << 5 | 5;
         m.block(1)[126] = 0x03;
         m.block(1)[127] = 0x0C; // the next block begins with the last byte, 0x00
     }},
};

TEST(EdidValidation, ChecksHeaderAndCeaStructure) {
    for (const Case& change : kValidation) {
        SCOPED_TRACE(change.what);
        Monitor monitor = hdmiMonitor();
        change.change(monitor);
        EXPECT_EQ(EDID_Validate(monitor.get()) != 0, change.valid);
    }
}

TEST(EdidValidation, FindsTheFirstCeaBlockOfRevision3) {
    struct {
        const char* what;
        unsigned extensions;
        std::function<void(Monitor&)> fill;
        unsigned found;
    } const cases[] = {
        {"none", 3, [](Monitor&) {}, 0},
        {"the second", 3, [](Monitor& m) { m.cea(2, {}).cea(3, {}); }, 2},
        {"not an older revision", 2, [](Monitor& m) { m.cea(1, {}, 1).cea(2, {}); }, 2},
        {"not one that is not counted", 1, [](Monitor& m) { m.cea(2, {}); }, 0},
        {"the last that there is room for", 8, [](Monitor& m) { m.cea(7, {}); }, 7},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.what);
        Monitor monitor;
        monitor.extensions(expected.extensions);
        expected.fill(monitor);
        EXPECT_EQ(EDID_FindCeaBlock(monitor.get()), expected.found);
    }
}

const std::array<ULONG, 3> k720 = {1280, 720, 60};
const std::array<ULONG, 3> k1080 = {1920, 1080, 60};
using Modes = std::vector<std::array<ULONG, 3>>;

TEST(EdidCeaModes, AreThoseThatTheAdapterDrives) {
    struct {
        const char* what;
        Bytes dataBlocks;
        Modes modes;
    } const cases[] = {
        {"nothing", {}, {}},
        {"both, in their order", video({16, 4}), {k1080, k720}},
        {"with the native bit", video({0x90}), {k1080}},
        {"twice is once", video({16, 0x90}), {k1080}},
        {"other codes", video({1, 2, 5, 31, 17}), {}},
        {"the same bytes in an audio block", dataBlock(1, {16, 4, 16}), {}},
        {"behind other data", hdmiVendor() + video({4}), {k720}},
        {"behind an unknown block", dataBlock(7, {5, 0}) + video({4}), {k720}},
        {"behind an empty block", Bytes{0} + video({4}), {k720}},
        {"in the second video block", video({1}) + video({16}), {k1080}},
    };
    for (const auto& expected : cases) {
        SCOPED_TRACE(expected.what);
        Monitor monitor;
        monitor.extensions(1).cea(1, expected.dataBlocks);
        EDID_AddCeaModes(monitor.get(), 1);
        EXPECT_EQ(monitor.modes(), expected.modes);
    }
}

TEST(EdidCeaModes, NeedDataBlocksAndFlags) {
    for (const unsigned offset : {0u, 3u, 4u}) {
        Monitor monitor;
        monitor.cea(1, video({16}));
        monitor.block(1)[2] = static_cast<std::uint8_t>(offset);
        EDID_AddCeaModes(monitor.get(), 1);
        EXPECT_TRUE(monitor.modes().empty()) << offset;
    }
    Monitor monitor;
    monitor.cea(1, video({16}), 3, 0);
    EDID_AddCeaModes(monitor.get(), 1);
    EXPECT_TRUE(monitor.modes().empty());
    monitor.cea(1, video({16}));
    EDID_AddCeaModes(monitor.get(), EDID_BLOCK_COUNT); // no such block
    EXPECT_TRUE(monitor.modes().empty());
}

// Every length of a video block at every offset: no byte of the block that follows in memory is read.
TEST(EdidCeaModes, StayInsideTheirBlock) {
    for (unsigned header = 4; header < 127; header++) {
        for (unsigned length = 0; length < 32; length++) {
            Monitor monitor;
            monitor.extensions(2);
            std::uint8_t* block = monitor.block(1);
            block[0] = 2;
            block[1] = 3;
            block[2] = 255;
            block[3] = 0x40;
            block[header] = static_cast<std::uint8_t>(2 << 5 | length);
            std::memset(monitor.block(2), 16, EDID_BLOCK_SIZE);
            EDID_AddCeaModes(monitor.get(), 1);
            ASSERT_TRUE(monitor.modes().empty()) << header << " " << length;
        }
    }
}

TEST(MonitorModes, AreListedOnceAndWithinBounds) {
    Monitor monitor;
    MONITOR_AddMode(monitor.get(), 2048, 1152, 60);
    MONITOR_AddMode(monitor.get(), 2048, 1152, 60);
    MONITOR_AddMode(monitor.get(), 2048, 1153, 60);
    MONITOR_AddMode(monitor.get(), 2560, 1600, 60);
    MONITOR_AddMode(monitor.get(), 0x10000, 0x10000, 60); // the product is 0 in 32 bits
    MONITOR_AddMode(monitor.get(), 2048, 1152, 50);
    EXPECT_EQ(monitor.modes(), (Modes{{2048, 1152, 60}, {2048, 1152, 50}}));

    for (ULONG refresh = 100; refresh < 200; refresh++) {
        MONITOR_AddMode(monitor.get(), 640, 480, refresh);
    }
    ASSERT_EQ(monitor->MonitorModeCount, 32u);
    EXPECT_EQ(monitor->MonitorModes[31].Refresh, 129u);
}

} // namespace
} // namespace edid_test
