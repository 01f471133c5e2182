#include "tool/settings.h"

#include "rig/settings.h"
#include "tool/report.h"
#include "tool/text_layout.h"

#include <cstdio>
#include <fmt/format.h>

namespace tool {

namespace {

using rig::SettingInfo;

constexpr std::size_t kIndent = 4;

Json settingJson(const SettingInfo& info) {
    return {{"name", info.name},
            {"type", info.isBinary() ? "REG_BINARY" : "REG_DWORD"},
            {"default", info.defaultValue ? Json(*info.defaultValue) : Json()},
            {"range", info.range},
            {"effect", info.effect},
            {"read", info.read}};
}

std::string settingText(const SettingInfo& info, std::size_t width) {
    const std::string type = info.isBinary() ? "binary" : fmt::format("default {}", *info.defaultValue);
    return fmt::format(
        "{}\n{}{}", info.name,
        formatParagraph(fmt::format("{}; range: {}; read: {}", type, info.range, info.read), width, kIndent),
        formatParagraph(info.effect, width, kIndent));
}

} // namespace

ExitStatus showSettings(bool json) {
    Json list = Json::array();
    std::string text = "Values under the driver's Parameters key. A flag is on when it is not 0.\n";
    for (const SettingInfo& info : rig::settingList()) {
        list.push_back(settingJson(info));
        text += "\n" + settingText(info, terminalWidth());
    }
    if (json) {
        text = list.dump(2) + "\n";
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    return ExitStatus::Right;
}

} // namespace tool
