#include "rig/builtin_edid.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace rig {
namespace {

TEST(BuiltinEdid, IsWhatEdidDecodeCallsConforming) {
    const std::vector<std::uint8_t> edid = builtinEdid();
    ASSERT_EQ(edid.size(), 256u);
    const test::TemporaryFolder folder;
    const std::string command = "edid-decode --check " + folder.write("edid.bin", edid) + " 2>&1";
    std::FILE* output = popen(command.c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::string text;
    for (char line[256]; std::fgets(line, sizeof line, output) != nullptr;) {
        text += line;
    }
    EXPECT_EQ(pclose(output), 0);
    EXPECT_NE(text.find("EDID conformity: PASS"), std::string::npos) << text;
}

} // namespace
} // namespace rig
