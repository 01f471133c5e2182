#include "tool/edid_file.h"

#include "device/client_abi.h"
#include "rig/builtin_edid.h"
#include "support/file.h"
#include "support/input_error.h"

#include <fmt/format.h>

namespace tool {

namespace {

constexpr std::size_t kMaxBlocks = 256;

} // namespace

std::vector<std::uint8_t> loadEdid(const std::string& file) {
    if (file == "none") {
        return {};
    }
    if (file == "default") {
        return rig::builtinEdid();
    }
    std::vector<std::uint8_t> edid = support::readFile(file, kMaxBlocks * EDID_BLOCK_SIZE);
    if (edid.empty() || edid.size() % EDID_BLOCK_SIZE != 0) {
        throw support::InputError(fmt::format("{} has {} bytes; an EDID has 1 to {} blocks of {} bytes",
                                              support::inputName(file), edid.size(), kMaxBlocks,
                                              EDID_BLOCK_SIZE));
    }
    return edid;
}

} // namespace tool
