// The list of settings against the README, and how it is printed.
#include "rig/settings.h"
#include "tool/text_layout.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tool {
namespace {

std::string withSingleSpaces(const std::string& line) {
    std::istringstream words(line);
    std::string result;
    for (std::string word; words >> word;) {
        result += (result.empty() ? "" : " ") + word;
    }
    return result;
}

std::vector<std::string> settingRowsOfReadme() {
    std::ifstream readme(README_FILE);
    std::vector<std::string> rows;
    bool inSection = false;
    for (std::string line; std::getline(readme, line);) {
        if (line.starts_with("## ")) {
            inSection = line == "## Settings";
        } else if (inSection && line.starts_with("| `")) {
            rows.push_back(withSingleSpaces(line));
        }
    }
    return rows;
}

TEST(Settings, MatchTheReadmeRowByRow) {
    std::vector<std::string> expected;
    for (const rig::SettingInfo& info : rig::settingList()) {
        const std::string value = info.defaultValue ? std::to_string(*info.defaultValue) : "none";
        expected.push_back(fmt::format("| `{}` | {} | {}{} | {} | {} |", info.name, value,
                                       info.isBinary() ? "binary, " : "", info.range, info.effect,
                                       info.read));
    }
    EXPECT_EQ(settingRowsOfReadme(), expected);
}

TEST(TextLayout, BreaksParagraphsBetweenWords) {
    EXPECT_EQ(formatParagraph("", 10, 2), "");
    EXPECT_EQ(formatParagraph("one two three", 9, 2), "  one two\n  three\n");
    EXPECT_EQ(formatParagraph("one two three", 8, 2), "  one\n  two\n  three\n");
    EXPECT_EQ(formatParagraph("a wordthatistoolong b", 6, 1), " a\n wordthatistoolong\n b\n");
    EXPECT_EQ(formatParagraph("1920\u00D71080 x", 11, 0), "1920\u00D71080 x\n")
        << "characters count, not bytes";
}

} // namespace
} // namespace tool
