#include "tool/modes.h"

#include "tool/mode_list.h"
#include "tool/report.h"
#include "tool/text_layout.h"

#include <cstdio>
#include <fmt/format.h>

namespace tool {

namespace {

Json modeJson(const ModeInfo& mode) {
    return {{"width", mode.size.width},
            {"height", mode.size.height},
            {"refresh", mode.refresh},
            {"exact_refresh", mode.exactRefresh},
            {"pixel_clock", mode.pixelClock},
            {"pll_clock", mode.pllClock},
            {"horizontal_total", mode.horizontalTotal},
            {"vertical_total", mode.verticalTotal},
            {"offered", mode.offered}};
}

std::vector<std::string> modeRow(const ModeInfo& mode) {
    return {fmt::format("{}x{}", mode.size.width, mode.size.height),
            std::to_string(mode.refresh),
            fmt::format("{:.3f}", mode.exactRefresh),
            fmt::format("{:.3f}", static_cast<double>(mode.pixelClock) / 1e6),
            fmt::format("{:.3f}", static_cast<double>(mode.pllClock) / 1e6),
            std::to_string(mode.horizontalTotal),
            std::to_string(mode.verticalTotal),
            mode.offered ? "yes" : "no"};
}

} // namespace

ExitStatus showModes(bool json) {
    Json list = Json::array();
    std::vector<std::vector<std::string>> rows = {{"mode", ">Hz", ">real Hz", ">clock MHz", ">PLL MHz",
                                                   ">H total", ">V total", "a monitor may offer it"}};
    for (const ModeInfo& mode : modeList()) {
        list.push_back(modeJson(mode));
        rows.push_back(modeRow(mode));
    }
    const std::string text = json ? list.dump(2) + "\n" : formatColumns(rows);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return ExitStatus::Right;
}

} // namespace tool
