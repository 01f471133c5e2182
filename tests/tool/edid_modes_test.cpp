// The tool's decoding of EDIDs, and its explanation of a rewrite.
#include "rig/builtin_edid.h"
#include "tool/edid_modes.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tool {
namespace {

using rig::builtinEdid;
using support::Size;

std::vector<std::string> texts(const std::vector<EdidMode>& modes) {
    std::vector<std::string> list;
    for (const EdidMode& mode : modes) {
        list.push_back(mode.place + " " + std::to_string(mode.size.width) + "x" +
                       std::to_string(mode.size.height) + "@" + std::to_string(mode.refresh));
    }
    return list;
}

TEST(EdidModes, ReadsEveryKind) {
    EXPECT_EQ(texts(edidModes(builtinEdid())),
              (std::vector<std::string>{
                  "established 640x480@60", "established 800x600@60", "established 1024x768@60",
                  "standard 1 1920x1080@60", "standard 2 1680x1050@60", "standard 3 1440x900@60",
                  "standard 4 1280x1024@60", "standard 5 1280x800@60", "standard 6 1280x720@60",
                  "detailed 1 1920x1080@60", "CEA VIC 16 1920x1080@60", "CEA VIC 4 1280x720@60",
                  "CEA VIC 3 720x480@60", "CEA VIC 1 640x480@60"}));
    std::vector<std::uint8_t> noHeader = builtinEdid();
    noHeader[0] = 1;
    EXPECT_TRUE(edidModes(noHeader).empty());
    EXPECT_TRUE(edidModes(std::vector<std::uint8_t>(127, 0)).empty());
}

RewriteConditions conditions(bool superSpeed) {
    return {.superSpeed = superSpeed,
            .ignored = false,
            .ceaModesCount = false,
            .supported = [](Size size, unsigned refresh) {
                return refresh == 60 && size != Size{1280, 720};
            }};
}

std::string fateOf(const std::vector<ModeFate>& fates, const std::string& place) {
    for (const ModeFate& fate : fates) {
        if (fate.before.place == place) {
            return std::string(fateName(fate.fate)) + ": " + fate.reason;
        }
    }
    return "(not mentioned)";
}

TEST(EdidModes, TellsWhatARewriteDid) {
    const std::vector<std::uint8_t> before = builtinEdid();
    std::vector<std::uint8_t> after(before.begin(), before.begin() + 128);
    after[48] = 0x61; // the sixth standard timing becomes the placeholder
    after[49] = 0x7C;
    after[36] = 0x00; // 1024x768 is no longer offered
    after[54] = 1;    // another pixel clock in the first detailed timing
    const std::vector<ModeFate> fates = explainRewrite(before, after, conditions(true));
    EXPECT_EQ(fateOf(fates, "standard 1"), "kept: the adapter drives it");
    EXPECT_EQ(fateOf(fates, "standard 6"),
              "changed: not in the adapter's mode table: its entry becomes the placeholder");
    EXPECT_EQ(fateOf(fates, "detailed 1"), "changed: preferred timing, rewritten");
    EXPECT_EQ(fateOf(fates, "CEA VIC 16"), "dropped: the client reads the base block only");
    unsigned dropped = 0;
    for (const ModeFate& fate : fates) {
        dropped += fate.fate == Fate::Dropped && fate.before.size == Size{1024, 768};
    }
    EXPECT_EQ(dropped, 1u);
}

TEST(EdidModes, GivesAReasonForEveryDroppedOrReplacedMode) {
    const std::vector<std::uint8_t> before = builtinEdid();
    std::vector<std::uint8_t> after(before.begin(), before.begin() + 128);
    after[38] = 0x61; // 1920x1080, which the adapter drives
    after[39] = 0x7C;
    after[54] = 0; // no pixel clock: the slot holds no timing
    after[55] = 0;
    const std::vector<ModeFate> fates = explainRewrite(before, after, conditions(true));
    EXPECT_EQ(fateOf(fates, "standard 1"),
              "changed: removed, although the adapter drives it: its entry becomes the placeholder");
    EXPECT_EQ(fateOf(fates, "detailed 1"), "dropped: removed, although the adapter drives it");
}

TEST(EdidModes, TellsWhyNothingIsOffered) {
    const std::vector<std::uint8_t> zeros(128, 0);
    RewriteConditions unread = conditions(true);
    for (const ModeFate& fate : explainRewrite(builtinEdid(), zeros, unread)) {
        EXPECT_EQ(fate.fate, Fate::Dropped);
        EXPECT_EQ(fate.reason, "the EDID could not be read or is not valid");
    }
    unread.ignored = true;
    EXPECT_EQ(explainRewrite(builtinEdid(), zeros, unread).front().reason,
              "the EDID is not read because of the setting UseForceNonPnpMonitor");
}

RC_GTEST_PROP(EdidModes, TakesAnyBytes, (std::vector<std::uint8_t> before, std::vector<std::uint8_t> after)) {
    before.resize(128 * *rc::gen::inRange<std::size_t>(0, 4));
    after.resize(128);
    if (!before.empty() && *rc::gen::arbitrary<bool>()) {
        const std::vector<std::uint8_t> header = {0, 255, 255, 255, 255, 255, 255, 0};
        std::copy(header.begin(), header.end(), before.begin());
        std::copy(header.begin(), header.end(), after.begin());
    }
    for (const ModeFate& fate : explainRewrite(before, after, conditions(*rc::gen::arbitrary<bool>()))) {
        RC_ASSERT(!fate.reason.empty());
    }
}

} // namespace
} // namespace tool
