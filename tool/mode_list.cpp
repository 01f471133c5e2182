#include "tool/mode_list.h"

#include "display/mode_tables.h"
#include "model/timing.h"
#include "support/enumerate.h"
#include "support/input_error.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace tool {

namespace {

using support::Size;

constexpr unsigned kDesktopRefresh = 60; // of every mode that a client can request

ModeInfo infoOf(const VIDEO_MODE_ENTRY& entry) {
    const std::uint64_t total = std::uint64_t{entry.HorizontalTotal} * entry.VerticalTotal;
    const std::uint64_t pllClock = static_cast<std::uint64_t>(model::pllClock(entry.PllWord));
    return {.size = {entry.Width, entry.Height},
            .refresh = entry.Refresh,
            .exactRefresh = static_cast<double>(pllClock) / static_cast<double>(total),
            .pixelClock = total * entry.Refresh,
            .pllClock = pllClock,
            .horizontalTotal = entry.HorizontalTotal,
            .verticalTotal = entry.VerticalTotal,
            .offered = isOffered({entry.Width, entry.Height}, entry.Refresh)};
}

} // namespace

std::vector<ModeInfo> modeList() {
    std::vector<ModeInfo> list;
    VIDEO_MODE_ENTRY entry{};
    for (ULONG index = 0; MODE_GetEntry(index, &entry); index++) {
        const ModeInfo mode = infoOf(entry);
        const bool listed = std::ranges::any_of(list, [&](const ModeInfo& other) {
            return other.size == mode.size && other.refresh == mode.refresh;
        });
        if (!listed) {
            list.push_back(mode);
        }
    }
    return list;
}

bool isOffered(Size size, unsigned refresh) {
    return MODE_IsSupported(size.width, size.height, refresh) != 0;
}

void requireShowable(Size size, std::string_view what) {
    if (isOffered(size, kDesktopRefresh)) {
        return;
    }
    std::vector<ModeInfo> modes = modeList();
    std::erase_if(modes, [](const ModeInfo& mode) { return !mode.offered; });
    const std::string allowed = support::enumerate(
        modes, [](const ModeInfo& mode) { return fmt::format("{}x{}", mode.size.width, mode.size.height); });
    throw support::InputError(
        fmt::format("{} is {}x{}; the adapter can show {}", what, size.width, size.height, allowed));
}

} // namespace tool
