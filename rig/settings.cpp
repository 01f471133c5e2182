#include "rig/settings.h"

#include "device/settings.h"
#include "support/enumerate.h"
#include "support/file.h"
#include "support/input_error.h"
#include "support/parse.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <iterator>

namespace rig {

namespace {

using support::InputError;

#define DWORD_INFO(name, value, range, effect, read) {#name, value, range, effect, read},
#define BINARY_INFO(name, range, effect, read) {#name, std::nullopt, range, effect, read},
constexpr SettingInfo kSettings[] = {SETTINGS_LIST(DWORD_INFO, BINARY_INFO)};
#undef DWORD_INFO
#undef BINARY_INFO

// More than the driver accepts, so that values that are too long can be tested.
constexpr std::size_t kMaxBinaryBytes = 64 * 1024;

bool sameName(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

} // namespace

std::span<const SettingInfo> settingList() {
    return kSettings;
}

const SettingInfo& findSetting(std::string_view name) {
    const auto known = std::ranges::find_if(
        kSettings, [name](const SettingInfo& info) { return sameName(info.name, name); });
    if (known == std::end(kSettings)) {
        throw InputError(fmt::format("setting \"{}\" is unknown; allowed are {}", name,
                                     support::enumerate(kSettings, &SettingInfo::name)));
    }
    return *known;
}

Setting parseSetting(std::string_view name, std::string_view value) {
    const SettingInfo& info = findSetting(name);
    if (info.isBinary()) {
        if (!value.starts_with('@') || value.size() == 1) {
            throw InputError(
                fmt::format("{} is \"{}\"; it is a binary value, allowed is @FILE", info.name, value));
        }
        return {std::string(info.name), support::readFile(std::string(value.substr(1)), kMaxBinaryBytes)};
    }
    return {std::string(info.name),
            static_cast<ULONG>(support::parseNumber(value, info.name, 0, 0xFFFFFFFF))};
}

Setting parseAssignment(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        throw InputError(fmt::format("setting \"{}\" has no value; allowed is NAME=VALUE", text));
    }
    return parseSetting(text.substr(0, equals), text.substr(equals + 1));
}

} // namespace rig
