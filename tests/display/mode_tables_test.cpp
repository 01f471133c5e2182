// The list of display modes: which lookups succeed, and whether the register values of each mode are
// consistent.
#include "display/mode_tables.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

struct Lookup {
    const char* what;
    ULONG table;
    ULONG width;
    ULONG height;
    ULONG refresh;
    bool found;
    bool supported;
};

const Lookup kLookups[] = {
    {"the usual mode", 0, 1920, 1080, 60, true, true},
    {"the usual mode in the table of 2 bytes", 2, 1920, 1080, 60, true, true},
    {"the usual mode in a table that no setting selects", 5, 1920, 1080, 60, true, true},
    {"a table that does not exist", 6, 1920, 1080, 60, false, true},
    {"any large table number", ~0u, 1920, 1080, 60, false, true},
    {"no nearest refresh", 0, 1920, 1080, 59, false, false},
    {"a lower refresh", 0, 1920, 1080, 50, true, false},
    {"a refresh that another size has", 0, 1280, 720, 50, false, false},
    {"no nearest size", 0, 1919, 1080, 60, false, false},
    {"width and height swapped", 0, 1080, 1920, 60, false, false},
    {"the largest offered mode", 0, 2048, 1152, 60, true, true},
    {"a larger mode", 0, 2560, 1600, 60, true, false},
    {"slightly too large", 0, 1792, 1344, 60, true, false},
    {"no size", 0, 0, 0, 0, false, false},
    {"a size whose product wraps around to 0", 0, 0x10000, 0x10000, 60, false, false},
};

TEST(ModeTables, FindExactModesOnly) {
    for (const Lookup& lookup : kLookups) {
        SCOPED_TRACE(lookup.what);
        VIDEO_MODE_ENTRY entry = {};
        entry.Width = 0xDEAD;
        const bool found =
            MODE_LookupTable(lookup.table, lookup.width, lookup.height, lookup.refresh, &entry) != 0;
        EXPECT_EQ(found, lookup.found);
        EXPECT_EQ(entry.Width, lookup.found ? lookup.width : 0xDEAD);
        EXPECT_EQ(MODE_IsSupported(lookup.width, lookup.height, lookup.refresh) != 0, lookup.supported);
    }
}

std::vector<VIDEO_MODE_ENTRY> allModes() {
    std::vector<VIDEO_MODE_ENTRY> modes;
    VIDEO_MODE_ENTRY entry;
    for (ULONG i = 0; MODE_GetEntry(i, &entry); i++) {
        modes.push_back(entry);
    }
    return modes;
}

std::string nameOf(const VIDEO_MODE_ENTRY& mode) {
    return std::to_string(mode.Width) + "x" + std::to_string(mode.Height) + "@" +
           std::to_string(mode.Refresh);
}

// The lookup gives the first of the two entries of 1920 x 1200; every other mode has one.
TEST(ModeTables, HoldEveryModeOnceButOne) {
    std::multiset<std::string> names;
    for (const VIDEO_MODE_ENTRY& mode : allModes()) {
        names.insert(nameOf(mode));
    }
    for (const std::string& name : names) {
        EXPECT_EQ(names.count(name), name == "1920x1200@60" ? 2u : 1u) << name;
    }
    VIDEO_MODE_ENTRY entry;
    ASSERT_TRUE(MODE_LookupTable(0, 1920, 1200, 60, &entry));
    EXPECT_EQ(entry.HorizontalSync, 200u);
}

// Finds a transposed digit in a row: picture and blanking must fit into the totals, and the PLL word must
// make the pixel clock that totals and refresh require.
TEST(ModeTables, TimingsAreConsistent) {
    for (const VIDEO_MODE_ENTRY& mode : allModes()) {
        SCOPED_TRACE(nameOf(mode));
        EXPECT_LE(mode.Width + mode.HorizontalSync + mode.HorizontalBackPorch, mode.HorizontalTotal);
        EXPECT_LE(mode.Height + mode.VerticalSync + mode.VerticalBackPorch, mode.VerticalTotal);

        ASSERT_NE(mode.PllWord & 0xFF, 0u);
        const double quotient = 10e6 * (mode.PllWord >> 16 & 0xFF) / (mode.PllWord & 0xFF);
        const double clock = (mode.PllWord >> 9 & 1) != 0 ? quotient / 2 : quotient;
        const double wanted = double(mode.HorizontalTotal) * mode.VerticalTotal * mode.Refresh;
        EXPECT_NEAR(clock / wanted, 1, 0.011);
    }
}

// The adapter reads the register images, so they must decode to the timing.
TEST(ModeTables, ImagesDecodeToTheTiming) {
    for (const VIDEO_MODE_ENTRY& mode : allModes()) {
        SCOPED_TRACE(nameOf(mode));
        EXPECT_EQ(mode.HorizontalSizeImage >> 16, mode.Width);
        EXPECT_EQ(mode.HorizontalSizeImage & 0xFFFF, mode.HorizontalTotal);
        EXPECT_EQ(mode.VerticalSizeImage >> 16, mode.Height);
        EXPECT_EQ(mode.VerticalSizeImage & 0xFFFF, mode.VerticalTotal);
        EXPECT_EQ(mode.HorizontalSyncImage >> 16, mode.HorizontalSync);
        EXPECT_EQ((mode.HorizontalSyncImage & 0xFFFF) - mode.HorizontalSync - 1, mode.HorizontalBackPorch);
        EXPECT_EQ(mode.VerticalSyncImage >> 16 & 0xF, mode.VerticalSync);
        EXPECT_EQ((mode.VerticalSyncImage & 0xFFFF) - mode.VerticalSync - 1, mode.VerticalBackPorch);
        EXPECT_EQ(mode.VerticalSyncImage >> 20, mode.VerticalSyncImage & 0xFFFF);
    }
}

} // namespace
